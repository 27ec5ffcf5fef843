#ifndef TOOLS_TARN_CONFIG_FILE_H_
#define TOOLS_TARN_CONFIG_FILE_H_

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/base-model-options.h"

namespace tarn::tool {

// All options by name, in the order in which a file gives them, with their
// values as a file writes them. Texts may be empty.
std::vector<std::pair<std::string, std::string>> OptionTexts(
    const ModelOptions& options);

// The text of the configuration file that gives `options`; texts that are empty
// are left out. Each comment, of one or several lines, stands above the option
// whose name is its key, or in its place; that of "" comes first.
std::string ConfigText(const ModelOptions& options,
                       const std::map<std::string, std::string>& comments);

}  // namespace tarn::tool

#endif  // TOOLS_TARN_CONFIG_FILE_H_
