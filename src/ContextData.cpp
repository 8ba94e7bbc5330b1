// SPDX-License-Identifier: Apache-2.0
#include "ContextData.h"

#include <cstring>
#include <utility>

#include "Log.h"

// Json::Reader and Json::FastWriter exist in every version of jsoncpp; newer versions mark them as deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

ContextData::ContextData(Json::Value value) : m_value(std::move(value)) {}

ContextData::ContextData(Json::Value* value) : m_pValue(value) {}

bool ContextData::SetValue(const char* key, std::string value) {
    Target_()[key] = Json::Value(value);
    return true;
}

bool ContextData::SetValue(const char* key, const char* value) {
    Target_()[key] = Json::Value(value != nullptr ? value : "");
    return true;
}

bool ContextData::SetValue(const char* key, int value) {
    Target_()[key] = Json::Value(value);
    return true;
}

bool ContextData::SetValue(const char* key, unsigned int value) {
    Target_()[key] = Json::Value(value);
    return true;
}

bool ContextData::SetValue(const char* key, unsigned long long value) {
    Target_()[key] = Json::Value(static_cast<Json::UInt64>(value));
    return true;
}

bool ContextData::SetValue(const char* key, long value) {
    return SetValue(key, static_cast<unsigned long long>(value));
}

bool ContextData::SetValue(const char* key, double value) {
    Target_()[key] = Json::Value(value);
    return true;
}

bool ContextData::SetValue(const char* key, ContextData& other) {
    Target_()[key].append(*other.GetValue());
    return true;
}

bool ContextData::SetValueNoArry(const char* key, ContextData& other) {
    Target_()[key] = *other.GetValue();
    return true;
}

bool ContextData::SetValueInArray(const char* key, std::string value) {
    Target_()[key].append(Json::Value(value));
    return true;
}

bool ContextData::SetValueInArray(const char* key, const char* value) {
    Target_()[key].append(Json::Value(value != nullptr ? value : ""));
    return true;
}

bool ContextData::RemoveMember(const char* key) {
    Json::Value& target = Target_();
    target[key];  // turns a null target into an object, as every access by key does
    target.removeMember(key);
    return true;
}

bool ContextData::Clear() {
    Target_().clear();
    return true;
}

bool ContextData::MakeData(const char* text) {
    if (text == nullptr) {
        LMR_LOG_ERROR("input is null");
        return false;
    }
    const std::string document(text);  // the text may belong to the value that the parser replaces
    Json::Reader reader;
    if (reader.parse(document.data(), document.data() + document.size(), Target_(), /*collectComments=*/true)) {
        return true;
    }
    if (m_pValue == nullptr) {
        LMR_LOG_ERROR("m_reader paring error: [%p]=> %s", static_cast<const void*>(text), document.c_str());
    }
    return false;
}

const char* ContextData::MakeStr() {
    m_strJson.clear();  // no text of an earlier call is left if the writer throws
    Json::FastWriter writer;
    m_strJson = writer.write(Target_());
    m_strJson.resize(std::strlen(m_strJson.c_str()));
    return m_strJson.c_str();
}

Json::Value* ContextData::GetValue() {
    return &Target_();
}

bool ContextData::IsValid(const char* key) {
    Json::Value& target = Target_();
    if (!target[key].isNull()) {
        return true;
    }
    target.removeMember(key);
    return false;
}

int ContextData::GetSize(const char* key) {
    return static_cast<int>(Target_()[key].size());
}

ContextData ContextData::GetValue(const char* key) {
    Json::Value& member = Target_()[key];
    return ContextData(m_pValue != nullptr ? member[0] : member);
}

ContextData ContextData::GetValue(const char* key, int index) {
    return ContextData(Target_()[key][index]);
}

ContextData ContextData::GetValuePtr(const char* key, int index) {
    return ContextData(&Target_()[key][index]);
}

std::string ContextData::GetValueStr(const char* key) {
    const Json::Value& member = Target_()[key];
    return member.isString() ? member.asString() : std::string();
}

std::string ContextData::GetValueStr2(const char* key) {
    std::string text = GetValueStr(key);
    return text.empty() ? "NULL" : text;
}

int ContextData::GetValueInt(const char* key) {
    const Json::Value& member = Target_()[key];
    return member.isInt() ? member.asInt() : 0;
}

unsigned int ContextData::GetValueUInt(const char* key) {
    const Json::Value& member = Target_()[key];
    return member.isUInt() ? member.asUInt() : 0;
}

unsigned long long ContextData::GetValueUInt64(const char* key) {
    const Json::Value& member = Target_()[key];
    return member.isNull() ? 0 : member.asUInt64();
}

double ContextData::GetValueDouble(const char* key) {
    const Json::Value& member = Target_()[key];
    return member.isDouble() ? member.asDouble() : 0.0;
}

bool ContextData::GetValueBool(const char* key) {
    const Json::Value& member = Target_()[key];
    return member.isBool() && member.asBool();
}
