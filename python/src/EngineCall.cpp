#include "EngineCall.h"

#include <nanobind/nanobind.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace python {
namespace {

std::atomic<pid_t> engineProcess{0};  // that has used the engines first; 0 if none has
std::atomic<int> callCount{0};
std::atomic<bool> isFinished{false};

}  // namespace

bool isForked() {
  const pid_t process = engineProcess;
  return process != 0 && process != getpid();
}

CountedCall::CountedCall() {
  // The threads whose calls were counted do not exist in a forked process.
  static const int registered = pthread_atfork(nullptr, nullptr, [] { callCount = 0; });
  static_cast<void>(registered);
  ++callCount;
}

CountedCall::~CountedCall() {
  --callCount;
}

EngineCall::EngineCall() {
  if (isFinished) throw NotAllowed("the interpreter is shutting down");
  pid_t none = 0;
  engineProcess.compare_exchange_strong(none, getpid());
  if (isForked()) {
    throw NotAllowed(
        "this process was forked after its parent had opened a model; create processes with the "
        "start method \"spawn\" or \"forkserver\", or before the first model");
  }
}

bool areCallsFinished() {
  return isFinished;
}

void finishCalls() {
  isFinished = true;
  const nanobind::gil_scoped_release released;
  while (callCount > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

}  // namespace python
