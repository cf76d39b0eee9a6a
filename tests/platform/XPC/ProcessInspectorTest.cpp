#include "platform/XPC/ProcessInspector.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/Concurrency/RunLoop.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

// Looked at by a process that another program has started and that serves a socket.
TEST(ProcessInspectorTest, AsksTheInspectorThatAUnitHasStarted) {
  const TemporaryFolder folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, (folder.path() / "inspector").c_str());
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  const pid_t inspector = fork();
  if (inspector == 0) ProcessInspector::serve(accept(listener, nullptr, nullptr));
  setenv("TALLOW_INSPECTOR", address.sun_path, 1);
  ASSERT_TRUE(ProcessInspector::startHelper());

  const ProcessIdentity own = ProcessInspector::shared().inspect(getpid(), -1);
  EXPECT_EQ(own.executable + own.doubt, ProcessIdentity::inspect(getpid(), -1).executable +
                                            ProcessIdentity::inspect(getpid(), -1).doubt);
  EXPECT_EQ(ProcessInspector::shared().inspect(getpid(), -1, geteuid()).executable, own.executable);
  EXPECT_EQ(ProcessInspector::shared().inspect(getpid(), -1, geteuid() + 1).doubt,
            "the process is of another user")
      << "a number that has been given to another's process";
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  waitpid(ended, nullptr, 0);
  EXPECT_EQ(ProcessInspector::shared().inspect(ended, -1, geteuid()).doubt,
            "the process has ended");

  // Without it nobody could be recognised: the service stops.
  const CapturedLog log;
  kill(inspector, SIGKILL);
  waitpid(inspector, nullptr, 0);
  EXPECT_TRUE(ProcessInspector::shared().inspect(getpid(), -1).isUnseen);
  EXPECT_TRUE(log.mentions(1, "the process that looks at callers has ended"));
  EXPECT_EQ(RunLoop::main().run(), EXIT_FAILURE);
}

}  // namespace
}  // namespace tallow
