#include "platform/XPC/CallerIdentification.h"

#include <unistd.h>

#include <map>
#include <utility>
#include <vector>

#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/ProcessInspector.h"

namespace tallow {

namespace {

using VariantMap = std::map<std::string, sdbus::Variant>;

template <class T>
std::optional<T> take(const VariantMap& map, const char* key) {
  const auto found = map.find(key);
  if (found == map.end() || !found->second.containsValueOfType<T>()) return std::nullopt;
  return found->second.get<T>();
}

std::string refusalOf(const ProcessIdentity& process) {
  return "No client descriptor names " + description(process) +
         "; see tallowd-clients.d(5) for how to describe it.";
}

}  // namespace

// What the bus daemon vouches for.
struct CallerIdentification::Credentials {
  std::optional<std::uint32_t> uid;
  std::optional<std::uint32_t> pid;
  std::string securityLabel;
  std::shared_ptr<const sdbus::UnixFd> process;  // newer bus daemons pass a descriptor of it

  explicit Credentials(const VariantMap& answer)
      : uid(take<std::uint32_t>(answer, "UnixUserID")),
        pid(take<std::uint32_t>(answer, "ProcessID")) {
    if (const auto label = take<std::vector<std::uint8_t>>(answer, "LinuxSecurityLabel")) {
      securityLabel.assign(label->begin(), label->end());
      while (securityLabel.ends_with('\0')) securityLabel.pop_back();
    }
    if (auto file = take<sdbus::UnixFd>(answer, "ProcessFD"))
      process = std::make_shared<const sdbus::UnixFd>(std::move(*file));
  }
};

CallerIdentification::CallerIdentification(std::shared_ptr<BusConnection> connection,
                                           bool ownUserOnly)
    : _connection(std::move(connection)),
      _ownUserOnly(ownUserOnly),
      _busDaemon(bus::makeProxy(_connection->connection(), bus::kBusName, bus::kBusPath)) {}

void CallerIdentification::identify(const std::string& uniqueName, Done done) {
  _busDaemon->callMethodAsync("GetConnectionCredentials")
      .onInterface(bus::kBusName)
      .withArguments(uniqueName)
      .uponReplyInvoke([this, uniqueName, done = std::move(done)](bus::CallError error,
                                                                  const VariantMap& answer) {
        if (error) {
          logLevel(2, "%@: no credentials of %@: %@", CallerIdentification::kClassName, uniqueName,
                   error->getMessage());
          done({});
          return;
        }
        _gotCredentials(uniqueName, Credentials(answer), done);
      });
}

void CallerIdentification::findProcess(const std::string& name,
                                       std::function<void(std::optional<std::uint32_t>)> found) {
  _busDaemon->callMethodAsync("GetConnectionUnixProcessID")
      .onInterface(bus::kBusName)
      .withArguments(name)
      .uponReplyInvoke([found = std::move(found)](bus::CallError error, const std::uint32_t& pid) {
        found(error ? std::nullopt : std::optional(pid));
      });
}

void CallerIdentification::_gotCredentials(const std::string& uniqueName, Credentials credentials,
                                           Done done) {
  Outcome known;
  known.uid = credentials.uid;
  if (!credentials.uid || !credentials.pid) {
    known.refusal = "The bus does not know the process of this connection.";
  } else if (_ownUserOnly && *credentials.uid != geteuid()) {
    known.refusal = "This service serves its own user only.";
  }
  if (!known.refusal.empty()) {
    done(std::move(known));
    return;
  }
  WorkerPool::shared().async([this, connection = _connection, uniqueName, known, credentials,
                              done = std::move(done)]() mutable {
    const int process = credentials.process ? credentials.process->get() : -1;
    known.process = ProcessInspector::shared().inspect(*credentials.pid, process, credentials.uid);
    known.process.uid = *credentials.uid;
    known.process.securityLabel = credentials.securityLabel;
    ClientDescriptors& descriptors = ClientDescriptors::shared();
    known.descriptor = descriptors.descriptorForProcess(known.process);
    if (!known.descriptor) {
      known.refusal = refusalOf(known.process);
      known.mayPass = known.process.isUnseen || !descriptors.isComplete();
    }
    const bool isCertain = process >= 0;
    connection->post(
        [this, uniqueName, known = std::move(known), isCertain, done = std::move(done)]() mutable {
          if (isCertain) {
            done(std::move(known));
          } else {
            _confirm(uniqueName, std::move(known), std::move(done));
          }
        });
  });
}

// Without a descriptor of the process from the bus daemon, the process that was looked at is the
// caller's only if the caller was still connected then: else its number might have been given to
// another process. A connection that has outlived its process is known by the other's user, unless
// that is the same: who runs programs of a user can be taken for any of that user's.
void CallerIdentification::_confirm(const std::string& uniqueName, Outcome outcome, Done done) {
  _busDaemon->callMethodAsync("NameHasOwner")
      .onInterface(bus::kBusName)
      .withArguments(uniqueName)
      .uponReplyInvoke([outcome = std::move(outcome), done = std::move(done)](bus::CallError error,
                                                                              const bool& isThere) {
        done(error || !isThere ? Outcome() : outcome);
      });
}

}  // namespace tallow
