// cffs-sim: stands in for the appliance's configuration daemon so that the
// CGI program and its tests run anywhere.  See options.h for the command
// line, protocol.h for what it answers and server.h for the fault injection.

#include <cstdio>
#include <string>
#include <vector>

#include "simulator/options.h"
#include "simulator/server.h"
#include "simulator/tree.h"

int main(int argc, char** argv) {
  Options options;
  options.socketPath = kApplianceSocket;
  std::string error;
  switch (parseOptions(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
    case ParseResult::Help:
      std::fputs(kUsage, stdout);
      return 0;
    case ParseResult::Error:
      std::fprintf(stderr, "cffs-sim: %s\n%s", error.c_str(), kUsage);
      return 2;
    case ParseResult::Run:
      break;
  }

  Tree tree;
  if (!options.configFile.empty() && !loadTreeAtStart(options.configFile, tree, error)) {
    std::fprintf(stderr, "cffs-sim: cannot read %s: %s\n", options.configFile.c_str(),
                 error.c_str());
    return 2;
  }
  return serve(options, tree);
}
