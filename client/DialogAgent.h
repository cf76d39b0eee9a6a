#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/AccountServiceClient.h"
#include "platform/Base/Result.h"
#include "platform/Base/Secret.h"

namespace tallow {

// A program that shows the store's dialogs to a person (com.vantor.HSDialogAgent). While it lives
// it is registered with the account service, also with one that is started later. It has a
// connection to the bus of its own; dialogs are shown one after the other, on a thread of its own.
//
// Only the account service is listened to. Owned by the program that can show something. The
// program's descriptor must allow it.
class DialogAgent {
 public:
  struct Dialog {
    // "message", "explanation", "buttons", "signIn", as the interface says. The service has taken
    // out what a terminal would act on.
    Dictionary contents;
    // Becomes readable when nobody waits for the answer any more: for poll(2).
    int goneFile = -1;
  };
  struct Answer {
    std::optional<std::size_t> button;  // nullopt: closed
    std::string accountName;
    Secret password;
  };
  // May take as long as it likes.
  using Show = std::function<Answer(const Dialog& dialog)>;

  // `client`: as whose agent it registers; empty for the program's own client. An error of
  // AccountServiceClient's domain where there is no bus or the service refuses.
  static Result<std::unique_ptr<DialogAgent>> start(const std::string& client, Show show);
  // Waits for the dialog that is shown: its goneFile becomes readable.
  ~DialogAgent();
  DialogAgent(const DialogAgent&) = delete;
  DialogAgent& operator=(const DialogAgent&) = delete;

 private:
  class Agent;
  explicit DialogAgent(std::unique_ptr<Agent> agent);
  const std::unique_ptr<Agent> _agent;
};

}  // namespace tallow
