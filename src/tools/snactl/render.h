// Human-readable text of the daemon's JSON answers: the status as a
// header and tables, side-information entries as tables or key lists.
#ifndef SNA_TOOLS_RENDER_H
#define SNA_TOOLS_RENDER_H

#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace sna::tools {

// A column: the JSON key and its heading.
using Column = std::pair<std::string, std::string>;

// One scalar as table text: strings as they are, booleans yes/no, null
// "-", anything else as compact JSON.
std::string cell_text(const nlohmann::json& value);

// A table of an array of objects. The preferred columns come first, in
// their order, where any row has the key; keys not in that list follow in
// the order they first appear, headed by the upper-cased key. An empty or
// missing array gives "  (none)".
std::string render_table(const nlohmann::json& rows, const std::vector<Column>& preferred);

// `snactl status`.
std::string render_status(const nlohmann::json& status);

// The entries of a side-information answer: a bare array, or the array
// under "side_info". Null when the answer has neither.
const nlohmann::json* side_info_entries(const nlohmann::json& answer);

std::string render_side_info_list(const nlohmann::json& entries);
std::string render_side_info_entry(const nlohmann::json& entry);

}  // namespace sna::tools

#endif
