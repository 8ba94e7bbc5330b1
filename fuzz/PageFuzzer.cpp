// SPDX-License-Identifier: Apache-2.0
#include "Page.h"

#include <iterator>

#include "Json.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Node;

/// A page and the JSON texts that it must carry.
struct Expected {
    Page::Content content;
    Node week;
    Node recent;
    Node total;
    Node rates;
};

void AddRecord(Input& input, std::list<CuratorBaseData>& ranking, Node& node) {
    constexpr const char* kTexts[] = {
        "</script><script>alert(1)</script>", "@WEEK@", "<!--", "&lt;", "@", "\\u003c", "\"", ""};
    CuratorBaseData record;
    record.SetUnitId(input.Flag() ? input.Text() : input.OneOf(kTexts));
    record.m_strMetaData = input.Flag() ? input.Text() : input.OneOf(kTexts);
    record.m_strMetaDataSrc = input.Flag() ? input.Text() : input.OneOf(kTexts);
    record.m_dScore = input.Take<std::int16_t>() / 16.0;
    ranking.push_back(record);
    Node item;
    item["Id"] = Node::Of(record.GetUnitId());
    item["Score"] = Node::Of(record.m_dScore);
    if (!record.m_strMetaDataSrc.empty()) {
        item["MetaDataSrc"] = Node::Of(record.m_strMetaDataSrc);
    }
    if (!record.m_strMetaData.empty()) {
        item["Name"] = Node::Of(record.m_strMetaData);
    }
    node["list"].Append(item);
    node["Size"] = Node::OfUnsigned(ranking.size());
}

void AddRates(Input& input, Expected& expected) {
    for (std::size_t row = 0; row < 8; ++row) {
        Evaluation::Result result;
        result.name = input.Text();
        result.tries = input.Take<std::uint16_t>();
        result.first = input.Take<std::uint8_t>();
        result.amongThree = input.Take<std::uint8_t>();
        result.amongFive = input.Take<std::uint8_t>();
        expected.content.evaluation.push_back(result);
        Node rate;
        rate["Name"] = Node::Of(result.name);
        rate["Top1"] = Node::Of(static_cast<long long>(result.first));
        rate["Top3"] = Node::Of(static_cast<long long>(result.amongThree));
        rate["Top5"] = Node::Of(static_cast<long long>(result.amongFive));
        expected.rates[row < Evaluation::kRankings ? "rankings" : "agents"].Append(rate);
    }
    expected.rates["Tries"] = Node::Of(static_cast<long long>(expected.content.evaluation.front().tries));
}

Expected MakeExpected(Input& input) {
    constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    Expected expected;
    expected.recent["Size"] = Node::OfUnsigned(0);
    expected.total["Size"] = Node::OfUnsigned(0);
    const std::size_t day = input.Below(7);
    const std::size_t hour = input.Below(24);
    Node cell;
    for (std::size_t left = input.Below(6); left > 0; --left) {
        switch (input.Below(3)) {
            case 0:
                AddRecord(input, expected.content.recent, expected.recent);
                break;
            case 1:
                AddRecord(input, expected.content.total, expected.total);
                break;
            default:
                AddRecord(input, expected.content.week.m_listData[day][hour], cell);
        }
    }
    expected.week["Size"] = Node::OfUnsigned(cell.kind == Node::Kind::Null ? 0 : 1);
    if (cell.kind != Node::Kind::Null) {
        expected.week[kDays[day]].At(0)[std::to_string(hour)].Append(cell);
    }
    AddRates(input, expected);
    expected.content.recordCount = input.Take<std::int32_t>();
    return expected;
}

/// Takes the elements of a page from its front.
class Reader {
public:
    explicit Reader(const std::string& page) : m_page(page) {}

    /// Takes a text that must come next.
    void Take(const std::string& text) {
        if (m_page.compare(m_at, text.size(), text) != 0) {
            Fuzz::SameText("the markup", m_page.substr(m_at, text.size()), text);
        }
        m_at += text.size();
    }

    /// Takes the content of an element and its end.
    std::string TakeContent() {
        const std::size_t end = m_page.find('<', m_at);
        Holds("the element ends", end != std::string::npos);
        std::string content = m_page.substr(m_at, end - m_at);
        m_at = end;
        return content;
    }

    /// @return whether everything is taken.
    bool IsAtEnd() const { return m_at == m_page.size(); }

private:
    const std::string& m_page;
    std::size_t m_at = 0;
};

/// The markup around the contents of the five elements.
std::vector<std::string> Markup() {
    Page::Content content;
    content.evaluation.resize(1);
    const std::string page = Page::Make(content);
    std::vector<std::string> parts;
    std::size_t from = 0;
    for (const char* id : {"week", "recent", "total", "rates", "about"}) {
        const std::string start = std::string("id=\"") + id + "-data\">";
        const std::size_t at = page.find(start);
        Holds("the page has the element", at != std::string::npos);
        parts.push_back(page.substr(from, at + start.size() - from));
        from = page.find('<', at);
    }
    parts.push_back(page.substr(from));
    return parts;
}

}  // namespace

void Fuzz::Test(Input& input) {
    static const std::vector<std::string> markup = Markup();
    SetZone("Asia/Kolkata");
    const Expected expected = MakeExpected(input);
    Node about;
    about["Records"] = Node::Of(static_cast<long long>(expected.content.recordCount));
    about["Zone"] = Node::Of(std::string("Asia/Kolkata"));
    const Node* const contents[] = {&expected.week, &expected.recent, &expected.total, &expected.rates, &about};
    const std::string page = Page::Make(expected.content);
    Reader reader(page);
    for (std::size_t part = 0; part < std::size(contents); ++part) {
        reader.Take(markup[part]);
        const std::string content = reader.TakeContent();
        const std::optional<Node> node = Parse(content);
        Same("an element", node ? Write(*node) : content, Write(*contents[part]));
    }
    reader.Take(markup.back());
    Holds("nothing follows", reader.IsAtEnd());
}
