// Filters by name: the texts of the option --filter and of kinetrel_add_filter_named.
//
//   NAME[:key=value[,key=value]...]      rigid:translation-m=0.1/0/2.5,rotation-deg=90/0/0
//
// The key `sensors` chooses the sensors that the option means, counted from 1: 1+3+5-8. Without it
// the option means all.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "filters/filter.h"

namespace kinetrel {

struct FilterOption {
  std::string text;  // without the sensors
  unsigned sensors = ~0U;
  std::shared_ptr<const Filter> filter;  // each mapping gets a clone
};

// Takes the sensors out of the text of an option and makes the filter of the rest.
//
// error    receives a sentence for the user if the result is false.
bool ReadFilterOption(std::string_view text, FilterOption& option, std::string& error);

// Reads sensors counted from 1, as in "1+3-5" or "1,3-5", into a mask. False: ill-formed.
bool ReadSensorList(std::string_view text, unsigned& mask);

// The same sensors as a text: "1,3-5". Of no sensors the text is the mask "0x0".
std::string SensorListText(unsigned mask, char separator = ',');

// The text of which ReadFilterOption makes the same option.
std::string FilterOptionText(const FilterOption& option);

// Makes a filter of a text without sensors. A map reads its file and takes up to a few seconds.
//
// error    receives a sentence for the user if the result is null.
std::unique_ptr<Filter> MakeFilter(std::string_view text, std::string& error);

// Reads the options in a file: one text a line; empty lines and those that begin with '#' are
// passed over. False: it cannot be read, or a line is ill-formed; `error` names the line.
bool ReadFilterFile(const std::string& path, std::vector<FilterOption>& options,
                    std::string& error);

}  // namespace kinetrel
