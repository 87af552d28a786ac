// report.h - the results, as lines of one table and as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace bench {

/// Processor, system and how busy it is before the first run, for the line above the table.
std::string DescribeMachine();

void PrintHead();
/// One result as a line of the table; one that holds an "error" says so instead of its numbers.
void PrintRow(const nlohmann::json& result);

}  // namespace bench
