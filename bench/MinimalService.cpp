// A service of a few lines on the same bus library: what tallowd's start is measured against.

#include <sdbus-c++/sdbus-c++.h>

int main() {
  auto connection = sdbus::createSessionBusConnection("com.vantor.tallowd.bench.Minimal");
  auto object = sdbus::createObject(*connection, "/minimal");
  object->registerMethod("answer")
      .onInterface("com.vantor.tallowd.bench.Minimal")
      .implementedAs([] { return std::string("answer"); });
  object->finishRegistration();
  connection->enterEventLoop();
}
