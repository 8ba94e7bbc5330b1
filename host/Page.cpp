// SPDX-License-Identifier: Apache-2.0
#include "Page.h"

#include <ContextData.h>
#include <glib.h>

#include <filesystem>
#include <map>

#include "page-template.h"

namespace {

constexpr int kEveryoneMayRead = 0644;

/// Escapes every "<", so that the JSON text cannot end its script element. The browser reads the same document.
std::string InScript(const std::string& json) {
    std::string result;
    for (const char character : json) {
        if (character == '<') {
            result += "\\u003c";
        } else if (character != '\n') {  // the line feed at the end
            result += character;
        }
    }
    return result;
}

/// Replaces each "@NAME@" of the template with its text, in one pass: the texts themselves are not searched.
std::string Fill(const std::string& page, const std::map<std::string, std::string>& texts) {
    std::string result;
    std::size_t from = 0;
    for (std::size_t at = page.find('@'); at != std::string::npos; at = page.find('@', at + 1)) {
        const std::size_t end = page.find('@', at + 1);
        const auto text = texts.find(page.substr(at + 1, end - at - 1));
        if (text != texts.end()) {
            result += page.substr(from, at - from) + text->second;
            from = end + 1;
            at = end;
        }
    }
    return result + page.substr(from);
}

std::string RatesText(const std::vector<Evaluation::Result>& results) {
    ContextData rates;
    rates.SetValue("Tries", results.front().tries);
    for (std::size_t row = 0; row < results.size(); ++row) {
        ContextData rate;
        rate.SetValue("Name", results[row].name);
        rate.SetValue("Top1", results[row].first);
        rate.SetValue("Top3", results[row].amongThree);
        rate.SetValue("Top5", results[row].amongFive);
        rates.SetValue(row < Evaluation::kRankings ? "rankings" : "agents", rate);
    }
    return rates.MakeStr();
}

/// @return the name of the local time zone. Browsers know the usual names; the page falls back to UTC for others.
std::string Zone() {
    const char* zone = g_getenv("TZ");
    if (zone != nullptr && *zone != '\0') {
        return *zone == ':' ? zone + 1 : zone;
    }
    GTimeZone* local = g_time_zone_new_local();
    std::string name = g_time_zone_get_identifier(local);
    g_time_zone_unref(local);
    return name;
}

std::string AboutText(int recordCount) {
    ContextData about;
    about.SetValue("Records", recordCount);
    about.SetValue("Zone", Zone());
    return about.MakeStr();
}

/// Writes a ranked unit as the library does, and its name.
void WriteWithName(const CuratorBaseData& record, ContextData& out) {
    CuratorData2ContextData(record, out);
    if (!record.m_strMetaData.empty()) {
        out.SetValue("Name", record.m_strMetaData);
    }
}

}  // namespace

std::string Page::Make(const Content& content) {
    return Fill(kPage, {
                           {"WEEK", InScript(CurationResult2JsonData(content.week, WriteWithName))},
                           {"RECENT", InScript(CurationResult2JsonData(content.recent, WriteWithName))},
                           {"TOTAL", InScript(CurationResult2JsonData(content.total, WriteWithName))},
                           {"RATES", InScript(RatesText(content.evaluation))},
                           {"ABOUT", InScript(AboutText(content.recordCount))},
                       });
}

std::string Page::Write(const std::string& path, const std::string& page) {
    // The rename below would replace a device or a pipe.
    if (g_file_test(path.c_str(), G_FILE_TEST_EXISTS) && !g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR)) {
        return path + " is not a regular file: choose another name";
    }
    std::error_code ignored;
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty() && !std::filesystem::is_directory(folder, ignored)) {
        return "the folder " + folder.string() + " does not exist: create it or choose another folder";
    }
    GError* error = nullptr;
    if (g_file_set_contents_full(
            path.c_str(), page.data(), static_cast<gssize>(page.size()),
            static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE),
            kEveryoneMayRead, &error) == FALSE) {
        const std::string message = error->message;
        g_error_free(error);
        return message + "; free some space or choose another folder";
    }
    return "";
}
