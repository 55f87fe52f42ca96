// Commands whose engine parts are still being built. Each opens what it will need, so the
// index-opening messages and statuses already hold, then says it is not available yet.

#include "Commands.h"
#include "Output.h"

namespace tvl {

namespace {
int notYet(const char* command) {
  output::errorLine(std::string("tvl: ") + command + " is not available in this build yet");
  return 1;
}
}  // namespace

int runSearch(const Context& context) {
  openIndexOrExit(context);
  return notYet("search");
}
int runContent(const Context&) { return notYet("content"); }
int runFind(const Context&) { return notYet("find"); }
int runBench(const Context& context) {
  openIndexOrExit(context);
  return notYet("bench");
}
int runMeasure(const Context& context) {
  openIndexOrExit(context);
  return notYet("measure");
}

}  // namespace tvl
