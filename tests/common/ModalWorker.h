#pragma once

#include "platform/os/Thread.h"

namespace cirrovault::test {

// Runs work(thread) on a worker that enter(thread), a dialog controller's modal loop, starts;
// answers what enter answered, once the worker has ended.
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
