#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Number of processors this process may use: the hardware's count, at least 1.
class RbCPU {
public:
    static int GetCount();
};

// One piece of work for an RbThreadPool. The caller owns the task and keeps it alive until
// WaitUntilTerminate() has returned.
class RbTask {
public:
    RbTask() = default;
    explicit RbTask(std::function<void()> work) : m_work(std::move(work)) {}
    RbTask(const RbTask&) = delete;
    RbTask& operator=(const RbTask&) = delete;
    virtual ~RbTask() = default;

    // Blocks until the pool has run the task (returns at once for a task never added), then
    // rethrows what the work threw, once.
    void WaitUntilTerminate();
    bool IsTerminated() const;

protected:
    // The work; the default runs the function given to the constructor.
    virtual void Execute();

private:
    friend class RbThreadPool;
    void start();
    void run() noexcept;
    void finish(std::exception_ptr failure) noexcept;

    std::function<void()> m_work;
    mutable std::mutex m_mutex;
    std::condition_variable m_finished;
    bool m_bTerminated = true;
    std::exception_ptr m_failure;
};

// A fixed set of worker threads taking tasks in the order they were added.
class RbThreadPool {
public:
    // At least one worker.
    explicit RbThreadPool(int threads = RbCPU::GetCount());
    RbThreadPool(const RbThreadPool&) = delete;
    RbThreadPool& operator=(const RbThreadPool&) = delete;
    // Runs the tasks still queued, then joins the workers.
    ~RbThreadPool();

    // Queues the task; a task must not be added again before it has terminated. When queueing
    // fails the exception propagates and the task counts as terminated, not run.
    void AddTask(RbTask* task);
    int GetThreadCount() const { return static_cast<int>(m_workers.size()); }

    // The process's shared pool of RbCPU::GetCount() workers, started on first use.
    static RbThreadPool& GetGlobal();

private:
    void work();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<RbTask*> m_queue;
    bool m_bStopping = false;
    std::vector<std::thread> m_workers;
};
