#include "src/AccountService/AccountServiceDelegate.h"

int main(int argc, const char** argv) {
  return tallow::runAccountService(argc, argv);
}
