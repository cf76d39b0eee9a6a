#include "platform/XPC/XPCTransaction.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace tallow {

namespace {
std::atomic<std::int64_t> openTransactions{0};
std::atomic<std::int64_t> openWork{0};
}  // namespace

void XPCTransaction::begin() {
  ++openTransactions;
}

std::shared_ptr<void> XPCTransaction::hold() {
  begin();
  return {&openTransactions, [](void*) { end(); }};
}

std::shared_ptr<void> XPCTransaction::work() {
  ++openWork;
  return {&openWork, [transaction = hold()](void*) { --openWork; }};
}

void XPCTransaction::end() {
  if (openTransactions-- > 0) return;
  std::fputs("XPCTransaction: ended more transactions than have begun\n", stderr);
  std::abort();
}

std::int64_t XPCTransaction::count() {
  return openTransactions;
}

std::int64_t XPCTransaction::workCount() {
  return openWork;
}

}  // namespace tallow
