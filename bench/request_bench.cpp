// Times what a browser waits for: whole requests through the shipped binary
// (fork, exec, connect, dialogue, reply) against the simulator, and one read
// of a long value that arrives in many small chunks, where a prompt search
// that rescanned the whole reply after each chunk would take quadratic time.
// Runs in a private /tmp like the tests; needs root.
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "support/cgi_process.h"
#include "support/isolation.h"
#include "support/simulator.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void report(const char* what, std::vector<double> times) {
  std::sort(times.begin(), times.end());
  printf("%-40s n=%3zu  median %7.2f ms  p90 %7.2f ms  max %7.2f ms\n", what, times.size(),
         times[times.size() / 2], times[times.size() * 9 / 10], times.back());
}

std::vector<double> timeRequests(const CgiRequest& request, int count) {
  std::vector<double> times;
  for (int i = 0; i < count; ++i) {
    auto start = Clock::now();
    CgiResult result = runCgi(request);
    times.push_back(millisecondsSince(start));
    if (result.exitStatus != 0 || result.output.empty()) {
      fprintf(stderr, "request failed: %s\n", result.output.c_str());
      return {};
    }
  }
  return times;
}

}  // namespace

int main() {
  enterPrivateSystem();
  {
    Simulator simulator(defaultTree());
    report("read of 3 parameters",
           timeRequests(getRequest("read=/configuration/network/ip_addr,"
                                   "/configuration/encoders/venc1/codec,/nothing"),
                        200));
    report("write of the IP address (reply only)",
           timeRequests(getRequest("write=/configuration/network/ip_addr&value=10.0.0.5"), 100));
  }
  for (size_t megabytes : {1, 4, 16}) {
    ParameterMap tree = {{"/big", std::string(megabytes << 20, 'x')}};
    Simulator simulator(tree, {"--chunk", "4096", "--chunk-gap-ms", "0"});
    std::string label = "read of a " + std::to_string(megabytes) + " MiB value in 4 KiB chunks";
    report(label.c_str(), timeRequests(getRequest("read=/big"), 5));
  }
  for (pid_t child : childProcesses()) reapChild(child, std::chrono::seconds(5));
  return 0;
}
