// cffs-sim: stands in for the appliance's configuration daemon so that the
// CGI program and its tests run anywhere.  See options.h for the command
// line, protocol.h for what it answers and server.h for the fault injection.

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cffs_sim/options.h"
#include "cffs_sim/server.h"
#include "cffs_sim/tree.h"

int main(int argc, char** argv) {
  cffs_sim::Options options;
  std::string error;
  switch (
      cffs_sim::ParseOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &error)) {
    case cffs_sim::ParseResult::kHelp:
      std::fputs(cffs_sim::kUsage, stdout);
      return 0;
    case cffs_sim::ParseResult::kError:
      std::fprintf(stderr, "cffs-sim: %s\n%s", error.c_str(), cffs_sim::kUsage);
      return 2;
    case cffs_sim::ParseResult::kRun:
      break;
  }

  cffs_sim::Tree tree;
  if (!options.config_file.empty()) ::unlink(cffs_sim::SavingFile(options.config_file).c_str());
  if (!options.config_file.empty() && !cffs_sim::LoadTree(options.config_file, &tree, &error)) {
    std::fprintf(stderr, "cffs-sim: cannot read %s: %s\n", options.config_file.c_str(),
                 error.c_str());
    return 2;
  }
  return cffs_sim::Serve(options, &tree);
}
