// Calls of the library from Python: when they are allowed, and the end of the interpreter.
#pragma once

#include <stdexcept>

namespace python {

/// The engines cannot be used.
struct NotAllowed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Counts a call from before the GIL is given up until the last code of Python has run for it.
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
/// those threads cannot return. A thread that returns after the interpreter has ended is killed by
/// it, which C++ code does not survive.
void finishCalls();

}  // namespace python
