// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_PAGE_H
#define CONTEXT_HOST_PAGE_H

#include <Provider/CuratorAgent.h>

#include <list>
#include <string>
#include <vector>

#include "Evaluation.h"

/// A page for a browser: one HTML file that needs no network and carries the rankings as JSON texts.
namespace Page {

struct Content {
    CuratorBaseData7x24 week;
    std::list<CuratorBaseData> recent;
    std::list<CuratorBaseData> total;
    std::vector<Evaluation::Result> evaluation;
    int recordCount = 0;
};

/// @return the whole page. Names are escaped: no name can become markup.
std::string Make(const Content& content);

/// Writes the page under a temporary name and renames it. If that fails, an existing file stays unchanged.
/// @return the error, for the user; empty if there is none.
std::string Write(const std::string& path, const std::string& page);

}  // namespace Page

#endif  // CONTEXT_HOST_PAGE_H
