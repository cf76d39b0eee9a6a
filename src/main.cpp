#include "platform/Sandbox/BuiltInFilter.h"
#include "platform/Sandbox/Sandbox.h"
#include "src/AccountService/AccountServiceDelegate.h"

int main(int argc, const char** argv) {
  tallow::sandbox_use_compiled_filter(tallow::builtInFilter());
  return tallow::runAccountService(argc, argv);
}
