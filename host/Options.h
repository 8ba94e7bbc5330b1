// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_OPTIONS_H
#define CONTEXT_HOST_OPTIONS_H

#include <Provider/CuratorAgent.h>

#include <optional>
#include <string>
#include <vector>

/// The options of the command line.
struct Options {
    ECuratorAgentType agent = CURATOR_AGENT_MFU;
    int max = 10;
    int minDuration = 0;  ///< seconds
    bool weekly = false;
    bool json = false;
    bool evaluate = false;
    bool trackMemory = false;
    std::optional<int> port;          ///< the port to serve at
    std::optional<std::string> page;  ///< the file to write the page to
    std::string database = "usage.db";
    std::vector<std::string> files;
};

/// Reads the command line. `--help` prints the help text and ends the program.
/// @return the error, for the user; empty if there is none.
std::string ParseOptions(int argc, char** argv, Options& options);

#endif  // CONTEXT_HOST_OPTIONS_H
