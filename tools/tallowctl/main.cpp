#include "tools/tallowctl/Application.h"

int main(int argc, char** argv) {
  return tallow::ctl::Application().run(argc, argv);
}
