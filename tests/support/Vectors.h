// SPDX-License-Identifier: Apache-2.0
#ifndef LUMORA_COMMON_TESTS_VECTORS_H
#define LUMORA_COMMON_TESTS_VECTORS_H

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

/// Reads records that tests/data/vectors/sampling.py writes: a name in brackets, then fields with values.
namespace Vectors {

struct Record {
    std::string name;
    std::map<std::string, std::vector<std::string>> fields;

    bool Has(const std::string& field) const { return fields.count(field) != 0; }

    std::vector<double> Doubles(const std::string& field) const {
        std::vector<double> values;
        for (const std::string& text : Texts(field)) {
            values.push_back(std::strtod(text.c_str(), nullptr));
        }
        return values;
    }

    std::vector<int> Integers(const std::string& field) const {
        std::vector<int> values;
        for (const std::string& text : Texts(field)) {
            values.push_back(std::stoi(text));
        }
        return values;
    }

    unsigned int Unsigned(const std::string& field) const {
        return static_cast<unsigned int>(std::stoull(Texts(field).at(0)));
    }

    /// @return the values of a field that has one digit per value.
    std::vector<int> Digits(const std::string& field) const {
        std::vector<int> values;
        for (const std::string& text : Texts(field)) {
            for (const char digit : text) {
                values.push_back(digit - '0');
            }
        }
        return values;
    }

    /// @return the values of a field; empty if the field is missing.
    std::vector<std::string> Texts(const std::string& field) const {
        const auto found = fields.find(field);
        return found == fields.end() ? std::vector<std::string>{} : found->second;
    }
};

/// @return all records of a name; throws if there are none.
inline std::vector<Record> Read(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    std::vector<Record> records;
    bool isWanted = false;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind('[', 0) == 0) {
            isWanted = line == "[" + name + "]";
            if (isWanted) {
                records.push_back({name, {}});
            }
        } else if (isWanted && !line.empty()) {
            std::istringstream words(line);
            std::string field;
            words >> field;
            for (std::string value; words >> value;) {
                records.back().fields[field].push_back(value);
            }
        }
    }
    if (records.empty()) {
        throw std::runtime_error(path + " has no " + name);
    }
    return records;
}

}  // namespace Vectors

#endif  // LUMORA_COMMON_TESTS_VECTORS_H
