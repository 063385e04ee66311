#pragma once

#include "platform/os/Thread.h"

namespace cirrovault::test {

// A worker handed to a dialog controller's modal loop, which starts it: enter(worker) is
// the controller's entry point, work(worker) the worker's body, given its own thread as
// the controllers know it. Answers what enter answered, once the worker has ended.
template <class Enter, class Work>
bool underModalLoop(Enter enter, Work work) {
    Thread* self = nullptr;
    Thread worker([&] { work(self); });
    self = &worker;
    bool answer = enter(&worker);
    worker.join();
    return answer;
}

} // namespace cirrovault::test
