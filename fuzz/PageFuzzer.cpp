// SPDX-License-Identifier: Apache-2.0
#include "Page.h"

#include "Json.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Node;
using Fuzz::Same;

/// A page and the JSON texts that it must carry.
struct Expected {
    Page::Content content;
    Node week;
    Node recent;
    Node total;
    Node rates;
};

void AddRecord(Input& input, std::list<CuratorBaseData>& ranking, Node& node) {
    constexpr const char* kTexts[] = {"</script><script>alert(1)</script>", "@WEEK@", "<!--", "&lt;", "@", "\\u003c", "\"",
                                      ""};
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

/// @return the content of the script element with an id.
std::string ScriptOf(const std::string& page, const std::string& id) {
    const std::string start = "id=\"" + id + "\">";
    const std::size_t from = page.find(start);
    Holds("the element is in the page", from != std::string::npos);
    return page.substr(from + start.size(), page.find("</script>", from) - from - start.size());
}

void CheckScript(const std::string& page, const char* id, const Node& expected) {
    const std::string script = ScriptOf(page, id);
    Holds("a script has no markup", script.find('<') == std::string::npos);
    const std::optional<Node> node = Fuzz::Parse(script);
    Same(id, node ? Write(*node) : script, Write(expected));
}

}  // namespace

void Fuzz::Test(Input& input) {
    SetZone("Asia/Kolkata");
    const Expected expected = MakeExpected(input);
    const std::string page = Page::Make(expected.content);
    CheckScript(page, "week-data", expected.week);
    CheckScript(page, "recent-data", expected.recent);
    CheckScript(page, "total-data", expected.total);
    CheckScript(page, "rates-data", expected.rates);
    Node about;
    about["Records"] = Node::Of(static_cast<long long>(expected.content.recordCount));
    about["Zone"] = Node::Of(std::string("Asia/Kolkata"));
    CheckScript(page, "about-data", about);
    // The markup is that of a page without any name.
    static const auto plain = [] {
        Page::Content content;
        content.evaluation.resize(1);
        const std::string empty = Page::Make(content);
        return std::count(empty.begin(), empty.end(), '<');
    }();
    Same("the number of tags", std::count(page.begin(), page.end(), '<'), plain);
}
