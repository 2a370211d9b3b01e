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

struct FilterSpec {
  std::string text;  // without the sensors
  unsigned sensors = ~0U;
};

// Takes the sensors out of the text of an option.
//
// error    receives a sentence for the user if the result is false.
// Returns  false: the sensors are ill-formed. The rest of the text is not looked at.
bool ReadFilterSpec(std::string_view text, FilterSpec& spec, std::string& error);

// Makes a filter of a text without sensors. May read a file that the text names.
//
// error    receives a sentence for the user if the result is null.
std::unique_ptr<Filter> MakeFilter(std::string_view text, std::string& error);

// Reads the specs of a file: one text a line; empty lines and those that begin with '#' are passed
// over. False: it cannot be read, or a line is ill-formed; `error` names the line.
bool ReadFilterFile(const std::string& path, std::vector<FilterSpec>& specs, std::string& error);

}  // namespace kinetrel
