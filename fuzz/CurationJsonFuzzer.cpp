// SPDX-License-Identifier: Apache-2.0
#include <Provider/CuratorBaseData.h>

#include <list>

#include "Json.h"

namespace {

using Fuzz::Holds;
using Fuzz::Input;
using Fuzz::Node;
using Fuzz::Same;

using Ranking = std::list<CuratorBaseData>;

/// A writer of a host.
void WriteAux(const CuratorBaseData& record, ContextData& out) {
    if (record.m_nAux != 0) {
        out.SetValue("aux", record.m_nAux);
        out.SetValue("name", record.GetUnitName());
    }
}

Node StandardNode(const CuratorBaseData& record) {
    Node node;
    node["Id"] = Node::Of(record.GetUnitId());
    node["Score"] = Node::Of(record.m_dScore);
    if (!record.m_strMetaDataSrc.empty()) {
        node["MetaDataSrc"] = Node::Of(record.m_strMetaDataSrc);
    }
    return node;
}

Node AuxNode(const CuratorBaseData& record) {
    Node node;
    if (record.m_nAux != 0) {
        node["aux"] = Node::Of(static_cast<long long>(record.m_nAux));
        node["name"] = Node::Of(record.GetUnitName());
    }
    return node;
}

Node ListNode(const Ranking& ranking, Node (*nodeOf)(const CuratorBaseData&)) {
    Node node;
    for (const CuratorBaseData& record : ranking) {
        node["list"].Append(nodeOf(record));
    }
    node["Size"] = Node::OfUnsigned(ranking.size());
    return node;
}

Node GridNode(const CuratorBaseData7x24& grid, Node (*nodeOf)(const CuratorBaseData&)) {
    constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    Node node;
    for (std::size_t day = 0; day < 7; ++day) {
        Node hours;
        for (std::size_t hour = 0; hour < 24; ++hour) {
            if (!grid.m_listData[day][hour].empty()) {
                hours[std::to_string(hour)].Append(ListNode(grid.m_listData[day][hour], nodeOf));
            }
        }
        if (!hours.members.empty()) {
            node[kDays[day]].Append(hours);
        }
    }
    node["Size"] = Node::OfUnsigned(node.members.size());
    return node;
}

CuratorBaseData MakeRecord(Input& input, const std::string& text) {
    constexpr const char* kIds[] = {"a", "b", "c", ""};
    CuratorBaseData record;
    record.SetUnitId(input.Flag() ? input.OneOf(kIds) : text);
    record.m_dScore = input.Real();
    record.m_strMetaDataSrc = input.Flag() ? text : "";
    record.m_strMetaData = "not written";
    record.m_nAux = input.Flag() ? 0 : input.Take<std::int32_t>();
    record.SetUnitName(input.Flag() ? text : "");
    return record;
}

std::vector<std::string> IdsOf(const Ranking& ranking) {
    std::vector<std::string> ids;
    for (const CuratorBaseData& record : ranking) {
        ids.push_back(record.GetUnitId());
    }
    return ids;
}

void CheckRecord(const CuratorBaseData& record) {
    ContextData document;
    CuratorData2ContextData(record, document);
    Same("CuratorData2ContextData", std::string(document.MakeStr()), Write(StandardNode(record)) + "\n");
    CuratorBaseData cleared = record;
    cleared.clear();
    Same("a cleared record", Write(StandardNode(cleared)) + cleared.m_strMetaData + cleared.GetUnitName(),
         Write(StandardNode(CuratorBaseData())));
    Same("a cleared number", cleared.m_nAux, 0);
}

/// Bytes that are not UTF-8 become some valid text.
void CheckBytes(Input& input) {
    Ranking ranking = {MakeRecord(input, input.Bytes()), MakeRecord(input, input.Bytes())};
    for (CuratorBaseData& record : ranking) {
        record.m_dScore = 0;
    }
    const std::optional<Node> node = Fuzz::Parse(CurationResult2JsonData(ranking, CuratorData2ContextData));
    Holds("the text is JSON", node.has_value());
    Same("its list", node->members.at("list").elements.size(), std::size_t{2});
}

void CheckGrid(Input& input) {
    CuratorBaseData7x24 grid;
    CuratorBaseData7x24 other;
    bool isEqual = true;
    for (std::size_t left = input.Below(12); left > 0; --left) {
        const std::size_t day = input.Below(7);
        const std::size_t hour = input.Below(24);
        grid.m_listData[day][hour].push_back(MakeRecord(input, input.Text()));
        if (input.Below(8) != 0) {
            other.m_listData[day][hour].push_back(grid.m_listData[day][hour].back());
        }
    }
    for (std::size_t cell = 0; cell < 168; ++cell) {
        isEqual =
            isEqual && IdsOf(grid.m_listData[cell / 24][cell % 24]) == IdsOf(other.m_listData[cell / 24][cell % 24]);
    }
    Same("IsSequenceEqual of grids", IsSequenceEqual(grid, other), isEqual);
    Same("the text of a grid", CurationResult2JsonData(grid, CuratorData2ContextData),
         Write(GridNode(grid, StandardNode)) + "\n");
    Same("the text of a host's grid", CurationResult2JsonData(grid, WriteAux), Write(GridNode(grid, AuxNode)) + "\n");
}

}  // namespace

void Fuzz::Test(Input& input) {
    const std::size_t kind = input.Below(4);
    if (kind == 0) {
        return CheckBytes(input);
    }
    if (kind == 1) {
        return CheckGrid(input);
    }
    Ranking rankings[2];
    for (Ranking& ranking : rankings) {
        for (std::size_t left = input.Below(5); left > 0; --left) {
            ranking.push_back(MakeRecord(input, input.Text()));
            CheckRecord(ranking.back());
        }
    }
    Same("IsSequenceEqual", IsSequenceEqual(rankings[0], rankings[1]), IdsOf(rankings[0]) == IdsOf(rankings[1]));
    Same("the text of a ranking", CurationResult2JsonData(rankings[0], CuratorData2ContextData),
         Write(ListNode(rankings[0], StandardNode)) + "\n");
    Same("the text of a host's ranking", CurationResult2JsonData(rankings[1], WriteAux),
         Write(ListNode(rankings[1], AuxNode)) + "\n");
}
