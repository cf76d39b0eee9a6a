#include "tests/soak/SoakWorld.h"

#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "platform/HTTP/HTTPTransport.h"

namespace tallow {

namespace {

constexpr const char* kService = "com.vantor.tallowd";
constexpr std::array kClientTypes = {"store-agent", "book-store-agent", "media-store",
                                     "media-store-agent"};
static_assert(kClientTypes.size() == SoakWorld::kClients);

std::string portOf(const std::string& url) {
  return url.substr(url.rfind(':') + 1);
}

// The value of a line NAME=VALUE that a starting store prints.
std::string valueIn(const std::string& output, const std::string& name) {
  const std::size_t at = output.find(name + '=');
  if (at == std::string::npos) throw std::runtime_error("the store does not say " + name);
  const std::size_t begin = at + name.size() + 1;
  return output.substr(begin, output.find('\n', begin) - begin);
}

}  // namespace

std::string SoakWorld::client(int number) {
  return "com.example.soak" + std::to_string(number);
}

SoakWorld::SoakWorld() {
  const std::filesystem::path disk = _root.path() / "disk";
  std::filesystem::create_directories(disk);
  _hasDisk = mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=48m,mode=0700") == 0;
  for (const char* kind : {"CONFIG", "DATA", "CACHE", "STATE"})
    ::setenv((std::string("XDG_") + kind + "_HOME").c_str(), (disk / kind).c_str(), 1);
  ::setenv("XDG_CONFIG_DIRS", (_root.path() / "etc").c_str(), 1);
  ::setenv("XDG_DATA_DIRS", "/nonexistent", 1);
  ::setenv("TALLOW_LOG", "stderr", 1);
  startStore();
  describeClients();
  _bus = std::make_unique<PrivateBus>();
  _bus->mayStart({{kService, TALLOWD_PROGRAM},
                  {"com.vantor.quillonpushagent-xpc", TALLOW_DEVSTORE_PROGRAM " peer push-agent"},
                  {"com.vantor.downloadservice", TALLOW_DEVSTORE_PROGRAM " peer downloads"},
                  {"com.vantor.grantwell", TALLOW_DEVSTORE_PROGRAM " peer purchase-permission"}});
}

SoakWorld::~SoakWorld() {
  killService();
  _bus.reset();
  _store->end(SIGKILL);
  if (_hasDisk) umount2((_root.path() / "disk").c_str(), MNT_DETACH);
}

void SoakWorld::startStore() {
  const std::string state = (_root.path() / "store").native();
  const std::string http = _http.empty() ? "0" : portOf(_http);
  const std::string https = _https.empty() ? "0" : portOf(_https);
  _store.emplace(std::vector<std::string>{TALLOW_DEVSTORE_PROGRAM, "--state", state, "--port", http,
                                          "--https-port", https},
                 STDOUT_FILENO, "\nready\n");
  if (!_http.empty()) return;
  _http = valueIn(_store->said(), "TALLOW_DEVSTORE");
  _https = valueIn(_store->said(), "TALLOW_DEVSTORE_HTTPS");
  ::setenv("TALLOW_DEVSTORE", _http.c_str(), 1);
  ::setenv("TALLOW_CA_FILE", valueIn(_store->said(), "TALLOW_DEVSTORE_CA").c_str(), 1);
}

// This program may act as each of them.
void SoakWorld::describeClients() const {
  const std::filesystem::path config =
      std::filesystem::path(std::getenv("XDG_CONFIG_HOME")) / "tallowd";
  const std::filesystem::path anchors = _root.path() / "etc" / "tallowd" / "anchors";
  std::filesystem::create_directories(anchors);
  std::filesystem::create_directories(config / "clients.d");
  std::filesystem::copy_file(_root.path() / "store" / "anchors" / "root.pem", anchors / "root.pem");
  for (int number = 0; number < kClients; ++number)
    std::ofstream(config / "clients.d" / (client(number) + ".toml"))
        << "identifier = \"" << client(number) << "\"\nclient-type = \""
        << kClientTypes.at(static_cast<std::size_t>(number)) << "\"\nproduction-bag-urls = [\""
        << storeURL("/bag") << "\"]\nmedia-types = [\"mac-software\"]\n";
  std::ofstream(config / "clients.d" / "soak.toml")
      << "store-client = false\nmay-act-as-others = true\n[[process]]\nexecutable = \""
      << std::filesystem::canonical("/proc/self/exe").native() << "\"\n";
}

bool SoakWorld::killService() {
  if (!killPeer(kService)) return false;
  ++_kills;
  return true;
}

bool SoakWorld::killPeer(const std::string& name) {
  const pid_t process = _bus->ownerOf(name);
  if (process == 0 || ::kill(process, SIGKILL) != 0) return false;
  while (_bus->ownerOf(name) == process) continue;
  return true;
}

void SoakWorld::killStore() {
  const std::lock_guard lock(_storeLock);
  _store->end(SIGKILL);
  startStore();
}

void SoakWorld::stage(const std::string& json) const {
  HTTPRequest request(*URL::parse(_http + "/control"));
  request.method = "POST";
  request.body = Data(json);
  const auto response = HTTPTransport::shared().perform(std::move(request));
  if (response && response->statusCode == 400)
    throw std::runtime_error(json + ": " + std::string(response->body.view()));
}

void SoakWorld::fillDisk() const {
  std::ofstream filler(_root.path() / "disk" / "filler", std::ios::binary);
  std::vector<char> block(std::size_t{64} << 10);
  while (filler.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) continue;
}

void SoakWorld::freeDisk() const {
  std::filesystem::remove(_root.path() / "disk" / "filler");
}

std::optional<SoakWorld::Resources> SoakWorld::resourcesOf(pid_t process) {
  const std::filesystem::path proc = "/proc/" + std::to_string(process);
  Resources found;
  std::error_code error;
  const auto count = [&](const char* folder) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(proc / folder, error), {}));
  };
  found.descriptors = count("fd");
  found.threads = count("task");
  std::ifstream rollup(proc / "smaps_rollup");
  for (std::string line; std::getline(rollup, line);)
    if (line.starts_with("Private_Dirty:"))
      std::istringstream(line.substr(14)) >> found.privateKilobytes;
  if (error || found.privateKilobytes == 0) return std::nullopt;
  return found;
}

}  // namespace tallow
