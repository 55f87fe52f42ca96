// Placeholder until the command lands; keeps the dispatcher linking.
#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"

namespace tvl {

int runWatch(const Context& context) {
  static constexpr CommandSpec kSpec{"tvl watch [--json]", "Not built yet."};
  parseOptions(kSpec, context.words);
  output::errorLine("tvl: not built yet");
  return 1;
}

}  // namespace tvl
