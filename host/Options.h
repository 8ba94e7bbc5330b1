// SPDX-License-Identifier: Apache-2.0
#ifndef CONTEXT_HOST_OPTIONS_H
#define CONTEXT_HOST_OPTIONS_H

#include <Provider/CuratorAgent.h>

#include <string>
#include <vector>

constexpr int kNoPort = -1;

/// What the command line asks for.
struct Options {
    ECuratorAgentType agent = CURATOR_AGENT_MFU;
    int max = 10;
    int minDuration = 0;
    bool weekly = false;
    bool json = false;
    bool evaluate = false;
    bool trackMemory = false;
    int port = kNoPort;
    std::string page;  ///< the file to write it to; empty for none
    std::string database = "usage.db";
    std::vector<std::string> files;
};

/// Reads the command line; `--help` prints and ends the program.
/// @return what is wrong with it; empty when nothing is.
std::string ParseOptions(int argc, char** argv, Options& options);

#endif  // CONTEXT_HOST_OPTIONS_H
