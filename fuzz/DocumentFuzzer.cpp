// SPDX-License-Identifier: Apache-2.0
#include <ContextData.h>

#include <climits>

#include "Json.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Node;
using Fuzz::Same;
using Kind = Node::Kind;

constexpr int kMostSteps = 48;
constexpr std::size_t kLongestText = 20000;
constexpr double kTwoTo64 = 18446744073709551616.0;

/// A document and the value that it must have.
struct Checked {
    ContextData& document;
    Node model;
    bool isView;

    std::string Text() { return document.MakeStr(); }
};

bool IsWhole(const Node& node, double lowest, double highest) {
    return node.real >= lowest && node.real <= highest && node.real == std::floor(node.real);
}

int IntOf(const Node& node) {
    if (node.kind == Kind::Real && IsWhole(node, INT_MIN, INT_MAX)) {
        return static_cast<int>(node.real);
    }
    if (node.kind != Kind::Integer || node.magnitude > (node.isNegative ? 2147483648U : 2147483647U)) {
        return 0;
    }
    const auto magnitude = static_cast<long long>(node.magnitude);
    return static_cast<int>(node.isNegative ? -magnitude : magnitude);
}

unsigned int UIntOf(const Node& node) {
    if (node.kind == Kind::Real && IsWhole(node, 0, UINT_MAX)) {
        return static_cast<unsigned int>(node.real);
    }
    const bool fits = node.kind == Kind::Integer && !node.isNegative && node.magnitude <= UINT_MAX;
    return fits ? static_cast<unsigned int>(node.magnitude) : 0;
}

/// @return nothing when the value cannot be converted.
std::optional<unsigned long long> UInt64Of(const Node& node) {
    switch (node.kind) {
        case Kind::Null:
            return 0;
        case Kind::Bool:
            return node.isTrue ? 1 : 0;
        case Kind::Integer:
            return node.isNegative ? std::nullopt : std::optional<unsigned long long>(node.magnitude);
        case Kind::Real:
            return node.real >= 0 && node.real < kTwoTo64
                       ? std::optional<unsigned long long>(static_cast<unsigned long long>(node.real))
                       : std::nullopt;
        default:
            return std::nullopt;
    }
}

double DoubleOf(const Node& node) {
    if (node.kind == Kind::Integer) {
        return node.isNegative ? static_cast<double>(static_cast<std::int64_t>(0 - node.magnitude))
                               : static_cast<double>(node.magnitude);
    }
    return node.kind == Kind::Real ? node.real : 0.0;
}

void Read(Input& input, Checked& checked, const char* key) {
    ContextData& document = checked.document;
    const Node& member = checked.model[key];
    const std::string text = member.kind == Kind::Text ? member.text : "";
    switch (input.Below(7)) {
        case 0:
            return Same("GetValueStr", document.GetValueStr(key), text);
        case 1:
            return Same("GetValueStr2", document.GetValueStr2(key), text.empty() ? "NULL" : text);
        case 2:
            return Same("GetValueInt", document.GetValueInt(key), IntOf(member));
        case 3:
            return Same("GetValueUInt", document.GetValueUInt(key), UIntOf(member));
        case 4:
            return Same("GetValueDouble", document.GetValueDouble(key), DoubleOf(member));
        case 5:
            return Same("GetValueBool", document.GetValueBool(key), member.kind == Kind::Bool && member.isTrue);
        default:
            break;
    }
    std::optional<unsigned long long> number;
    try {
        number = document.GetValueUInt64(key);
    } catch (const Json::LogicError&) {
        // The kind cannot be converted.
    }
    if (member.kind != Kind::Real || member.real != kTwoTo64) {  // at its limit, the conversion is jsoncpp's
        Same("GetValueUInt64", number, UInt64Of(member));
    }
}

void Write(Input& input, Checked& checked, const char* key) {
    ContextData& document = checked.document;
    Node& member = checked.model[key];
    const std::string text = input.Text();
    const auto number = input.Take<std::int64_t>();
    bool result = true;
    switch (input.Below(8)) {
        case 0:
            result = document.SetValue(key, text);
            member = Node::Of(text);
            break;
        case 1:
            result = document.SetValue(key, text.empty() ? nullptr : text.c_str());
            member = Node::Of(text.c_str());
            break;
        case 2:
            result = document.SetValue(key, static_cast<int>(number));
            member = Node::Of(static_cast<long long>(static_cast<int>(number)));
            break;
        case 3:
            result = document.SetValue(key, static_cast<unsigned int>(number));
            member = Node::OfUnsigned(static_cast<unsigned int>(number));
            break;
        case 4:
            result = document.SetValue(key, static_cast<unsigned long long>(number));
            member = Node::OfUnsigned(static_cast<unsigned long long>(number));
            break;
        case 5:
            result = document.SetValue(key, static_cast<long>(number));
            member = Node::OfUnsigned(static_cast<unsigned long long>(static_cast<long>(number)));
            break;
        case 6: {
            const double real = input.Real();
            result = document.SetValue(key, real);
            member = Node::Of(real);
            break;
        }
        default:
            result = document.RemoveMember(key);
            checked.model.members.erase(key);
            break;
    }
    Holds("writing returns true", result);
}

/// Takes sub-documents and appends, which needs a member that is an array or null.
void UseArray(Input& input, Checked& checked, const char* key) {
    ContextData& document = checked.document;
    Node& member = checked.model[key];
    const std::string text = input.Text();
    const std::size_t index = input.Below(6);
    ContextData element;
    switch (input.Below(5)) {
        case 0:
            Holds("SetValueInArray", document.SetValueInArray(key, text));
            member.Append(Node::Of(text));
            return;
        case 1:
            Holds("SetValueInArray", document.SetValueInArray(key, text.empty() ? nullptr : text.c_str()));
            member.Append(Node::Of(text.c_str()));
            return;
        case 2:
            element = document.GetValue(key, static_cast<int>(index));
            return Same("GetValue of an element", std::string(element.MakeStr()), Write(member.At(index)) + "\n");
        case 3:
            element = document.GetValue(key);
            return Same("GetValue", std::string(element.MakeStr()),
                        Write(checked.isView ? member.At(0) : member) + "\n");
        default:
            break;
    }
    element = document.GetValuePtr(key, static_cast<int>(index));
    Node& viewed = member.At(index);
    Same("GetValuePtr", std::string(element.MakeStr()), Write(viewed) + "\n");
    if (viewed.kind == Kind::Null || viewed.kind == Kind::Object) {
        element.SetValue("in", text);
        viewed["in"] = Node::Of(text);
    }
}

void TakeOther(Input& input, Checked& checked, Checked& other, const char* key) {
    Node& member = checked.model[key];  // before `other` is copied, which may be the same document
    if (input.Flag()) {
        Holds("SetValueNoArry", checked.document.SetValueNoArry(key, other.document));
        const Node copy = other.model;
        member = copy;
    } else if (member.kind == Kind::Null || member.kind == Kind::Array) {
        Holds("SetValue of a document", checked.document.SetValue(key, other.document));
        member.Append(other.model);
    } else {
        checked.document.IsValid(key);
    }
}

/// Parses a text that strict JSON allows: the result must be its value. Other texts may fail.
void ParseText(Checked& checked, const std::string& text) {
    const std::string json = text.c_str();
    const std::optional<Node> node = Fuzz::Parse(json);
    bool isParsed = false;
    Fuzz::LogLines().clear();
    try {
        isParsed = checked.document.MakeData(json.c_str());
    } catch (const Json::RuntimeError&) {
        Holds("only deep text throws", !node);
    }
    Holds("strict JSON is parsed", isParsed || !node);
    if (!isParsed) {
        Holds("a view logs no failure", !checked.isView || Fuzz::LogLines().empty());
        checked.document = checked.isView ? ContextData(checked.document.GetValue()) : ContextData();
        *checked.document.GetValue() = Json::Value();
        checked.model = Node();
        return;
    }
    const std::string written = checked.Text();
    const std::optional<Node> parsed = Fuzz::Parse(written);
    Holds("the text is strict JSON or deep", parsed || written.size() > 500);
    checked.model = node ? *node : parsed.value_or(Node());
    if (!parsed) {
        *checked.document.GetValue() = Json::Value();
    }
}

void Step(Input& input, Checked& checked, Checked& other) {
    static constexpr const char* kKeys[] = {"a", "b", "", "a.b", "list"};
    const std::string any = input.Flag() ? input.Text() : input.OneOf(kKeys);
    const char* const key = any.c_str();
    const std::size_t kind = input.Below(8);
    if (kind == 0) {
        return ParseText(checked, input.Flag() ? Write(MakeNode(input, 4)) : input.Bytes());
    }
    if (checked.model.kind != Kind::Null && checked.model.kind != Kind::Object) {
        return;  // a key would be misuse
    }
    const Kind memberKind = checked.model[key].kind;
    checked.document.GetSize(key);
    switch (kind) {
        case 1:
            return Read(input, checked, key);
        case 2:
            return Write(input, checked, key);
        case 3:
            return memberKind == Kind::Null || memberKind == Kind::Array ? UseArray(input, checked, key) : void();
        case 4:
            return TakeOther(input, checked, input.Flag() ? checked : other, key);
        case 5: {
            Same("IsValid", checked.document.IsValid(key), memberKind != Kind::Null);
            if (memberKind == Kind::Null) {
                checked.model.members.erase(key);
            }
            return;
        }
        case 6: {
            const Node& member = checked.model[key];
            return Same("GetSize", checked.document.GetSize(key),
                        static_cast<int>(member.elements.size() + member.members.size()));
        }
        default:
            Holds("Clear", checked.document.Clear());
            checked.model.members.clear();
    }
}

}  // namespace

void Fuzz::Test(Input& input) {
    Json::Value value;
    ContextData owner;
    ContextData view(&value);
    Checked checked[] = {{owner, {}, false}, {view, {}, true}};
    for (int step = 0; step < kMostSteps && input.HasMore(); ++step) {
        const bool isView = input.Flag();
        Step(input, checked[isView], checked[!isView]);
        const std::string text = checked[isView].Text();
        Same("the document", text, Write(checked[isView].model) + "\n");
        if (text.size() > kLongestText) {
            return;
        }
    }
    Holds("a null text fails", !owner.MakeData(nullptr) && Fuzz::LogLines().back() == "6 input is null");
}
