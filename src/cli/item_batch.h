#pragma once

#include <string>
#include <vector>

#include "base/json.h"
#include "cli/command_context.h"

namespace vondle {

// A command on many files: those named, and all files in the folders named.
struct ItemBatch {
  std::string command;        // of the control protocol
  std::string verb;           // "fetched"
  json::Object details = {};  // of the request, beside the items
  bool takesFolders = false;  // it is for the folders themselves
  bool movesBytes = false;    // it takes as long as the files are large
};

// Goes on when single files fail, says which, and then fails with the code of the first.
Outcome<void> runBatch(const CommandContext& context, const ItemBatch& batch, const std::vector<std::string>& paths,
                       bool asJSON);

}  // namespace vondle
