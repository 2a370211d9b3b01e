// How an object describes what can be read and set of it: one row an attribute, in a table whose
// row index is the attribute's number. Filters, mappings and the engine describe themselves so.
#pragma once

#include <algorithm>
#include <span>
#include <type_traits>

namespace kinetrel {

enum class AttributeType : int {
  Number = 0,  // a whole number
  Text = 2,
  Floats = 3,  // an array of them
};

// Copied as it is to host programs, who know these 44 bytes.
struct AttributeInfo {
  static constexpr int kTextCount = -1;

  int id = 0;
  AttributeType valueType = AttributeType::Number;
  int count = 0;  // of values: 1 for a number, the array's length, kTextCount for a text
  char name[32] = {};
};
static_assert(sizeof(AttributeInfo) == 44 && std::is_trivially_copyable_v<AttributeInfo>);

// Copies as many rows as the table has, `count` at the most and none when that is negative. False
// without room to copy to.
inline bool CopyAttributeRows(std::span<const AttributeInfo> table, int count,
                              AttributeInfo* rows) {
  if (rows == nullptr) return false;
  std::copy_n(table.begin(), std::clamp(count, 0, static_cast<int>(table.size())), rows);
  return true;
}

}  // namespace kinetrel
