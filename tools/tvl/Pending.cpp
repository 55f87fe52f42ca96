// Commands whose engine parts are still being built: they say so on standard error.

#include "Commands.h"
#include "Output.h"

namespace tvl {

namespace {
int notYet(const char* command) {
  output::errorLine(std::string("tvl: ") + command + " is not available in this build yet");
  return 1;
}
}  // namespace

int runContent(const Context&) { return notYet("content"); }
int runFind(const Context&) { return notYet("find"); }

}  // namespace tvl
