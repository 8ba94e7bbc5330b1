// SPDX-License-Identifier: Apache-2.0
#include "Page.h"

#include <ContextData.h>
#include <glib.h>

#include <filesystem>
#include <map>

#include "page-template.h"

namespace {

constexpr int kEveryoneMayRead = 0644;

/// JSON text that a script element can hold: no "<" begins a tag there, and the browser reads the same document.
std::string InScript(const std::string& json) {
    std::string result;
    for (const char character : json) {
        if (character == '<') {
            result += "\\u003c";
        } else if (character != '\n') {  // the one at the end
            result += character;
        }
    }
    return result;
}

/// Puts texts in the place of "@NAME@", in one pass: what a text holds is never taken for a place.
std::string Fill(const std::string& form, const std::map<std::string, std::string>& texts) {
    std::string result;
    std::size_t from = 0;
    for (std::size_t at = form.find('@'); at != std::string::npos; at = form.find('@', at + 1)) {
        const std::size_t end = form.find('@', at + 1);
        const auto text = end == std::string::npos ? texts.end() : texts.find(form.substr(at + 1, end - at - 1));
        if (text != texts.end()) {
            result += form.substr(from, at - from) + text->second;
            from = end + 1;
            at = end;
        }
    }
    return result + form.substr(from);
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

/// @return the local zone by its name, as browsers know it.
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

/// What the rankings leave out: the names of their units, and where and from how much they were made.
std::string AboutText(const Page::Content& content) {
    ContextData names;
    const auto name = [&names](const std::list<CuratorBaseData>& ranking) {
        for (const CuratorBaseData& record : ranking) {
            names.SetValue(record.GetUnitId().c_str(), record.m_strMetaData);
        }
    };
    for (const auto& day : content.week.m_listData) {
        for (const std::list<CuratorBaseData>& ranking : day) {
            name(ranking);
        }
    }
    name(content.recent);
    name(content.total);
    ContextData about;
    about.SetValue("Records", content.recordCount);
    about.SetValue("Zone", Zone());
    about.SetValueNoArry("Names", names);
    return about.MakeStr();
}

}  // namespace

std::string Page::Make(const Content& content) {
    return Fill(kPage, {
                           {"WEEK", InScript(CurationResult2JsonData(content.week, CuratorData2ContextData))},
                           {"RECENT", InScript(CurationResult2JsonData(content.recent, CuratorData2ContextData))},
                           {"TOTAL", InScript(CurationResult2JsonData(content.total, CuratorData2ContextData))},
                           {"RATES", InScript(RatesText(content.evaluation))},
                           {"ABOUT", InScript(AboutText(content))},
                       });
}

std::string Page::Write(const std::string& path, const std::string& page) {
    // Renaming over a device or a folder would not end well.
    if (g_file_test(path.c_str(), G_FILE_TEST_EXISTS) && !g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR)) {
        return path + " is no ordinary file: choose another name";
    }
    std::error_code ignored;
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty() && !std::filesystem::is_directory(folder, ignored)) {
        return "there is no folder " + folder.string() + ": make it, or choose another folder";
    }
    GError* error = nullptr;
    if (g_file_set_contents_full(
            path.c_str(), page.data(), static_cast<gssize>(page.size()),
            static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE),
            kEveryoneMayRead, &error) == FALSE) {
        const std::string message = error->message;
        g_error_free(error);
        return message + "; make room there, or choose another folder";
    }
    return "";
}
