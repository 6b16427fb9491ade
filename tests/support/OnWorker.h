#pragma once

#include <QCoreApplication>
#include <QThread>
#include <memory>
#include <optional>

// Runs `work` on a thread of its own, as the program runs downloads and other blocking work, and
// returns its result; meanwhile the calling thread keeps its event loop turning (timers that
// cancel, a settings manager's queued calls).
template <typename F> auto onWorker(F work) -> decltype(work())
{
    std::optional<decltype(work())> result;
    std::unique_ptr<QThread> thread(QThread::create([&] { result = work(); }));
    thread->start();
    while (!thread->wait(5))
        QCoreApplication::processEvents();
    return std::move(*result);
}
