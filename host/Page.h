// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_PAGE_H
#define CONTEXT_HOST_PAGE_H

#include <Provider/CuratorAgent.h>

#include <list>
#include <string>
#include <vector>

#include "Evaluation.h"

/// A page for a browser: one file that needs no network, with the library's own JSON texts inside.
namespace Page {

struct Content {
    CuratorBaseData7x24 week;
    std::list<CuratorBaseData> recent;
    std::list<CuratorBaseData> total;
    std::vector<Evaluation::Result> evaluation;
    int recordCount = 0;
};

/// @return the whole page; no name, whatever it holds, becomes markup in it.
std::string Make(const Content& content);

/// Writes a file as a whole or, when it fails, not at all: what was there before stays.
/// @return what went wrong, for a person; empty when nothing did.
std::string Write(const std::string& path, const std::string& page);

}  // namespace Page

#endif  // CONTEXT_HOST_PAGE_H
