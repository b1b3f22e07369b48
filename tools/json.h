#pragma once

#include <nlohmann/json.hpp>

#include <iostream>

namespace tool {

/// Keeps the members of an object in the order in which they were added.
using Json = nlohmann::ordered_json;

/// Prints to standard output. JSON is UTF-8, but file names need not be: what is none is replaced.
inline void printJson(const Json& json)
{
    std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

} // namespace tool
