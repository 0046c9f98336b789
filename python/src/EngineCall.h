// Calls of the library from Python: when they are allowed, and the end of the interpreter.
#pragma once

#include <stdexcept>

namespace python {

/// The engines cannot be used.
struct NotAllowed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Counts a call, from before it releases the GIL until it no longer uses the interpreter.
class CountedCall {
 public:
  CountedCall();
  ~CountedCall();
  CountedCall(const CountedCall&) = delete;
  CountedCall& operator=(const CountedCall&) = delete;
};

/// A call that uses the engines.
class EngineCall : private CountedCall {
 public:
  /// Throws NotAllowed after a fork of a process that has used the engines, because their threads
  /// exist in the parent only, and while the interpreter ends.
  EngineCall();
};

/// Whether this process was forked from one that has used the engines.
bool isForked();

/// Whether finishCalls() was called.
bool areCallsFinished();

/// Refuses further calls and waits for those of other threads. Called with the GIL, without which
/// those threads cannot return. Python kills a thread that returns to it after the interpreter has
/// ended, which C++ code does not survive.
void finishCalls();

}  // namespace python
