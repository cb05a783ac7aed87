#include "qzsse/base/RbThreadPool.h"

#include <algorithm>

int RbCPU::GetCount()
{
    return static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
}

void RbTask::Execute()
{
    if (m_work)
        m_work();
}

void RbTask::start()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bTerminated = false;
    m_failure = nullptr;
}

void RbTask::run() noexcept
{
    std::exception_ptr failure;
    try {
        Execute();
    } catch (...) {
        failure = std::current_exception();
    }
    finish(failure);
}

void RbTask::finish(std::exception_ptr failure) noexcept
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_failure = failure;
    m_bTerminated = true;
    m_finished.notify_all();
}

void RbTask::WaitUntilTerminate()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_finished.wait(lock, [this] { return m_bTerminated; });
    if (m_failure) {
        std::exception_ptr failure = m_failure;
        m_failure = nullptr;
        std::rethrow_exception(failure);
    }
}

bool RbTask::IsTerminated() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bTerminated;
}

RbThreadPool::RbThreadPool(int threads)
{
    const int count = std::max(1, threads);
    m_workers.reserve(static_cast<size_t>(count));
    try {
        for (int i = 0; i < count; ++i)
            m_workers.emplace_back([this] { work(); });
    } catch (...) {
        // Keep the workers that started; a pool always has at least one.
        if (m_workers.empty())
            throw;
    }
}

RbThreadPool::~RbThreadPool()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStopping = true;
    }
    m_wake.notify_all();
    for (std::thread& t : m_workers)
        t.join();
}

void RbThreadPool::AddTask(RbTask* task)
{
    task->start();
    try {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(task);
    } catch (...) {
        task->finish(nullptr); // not queued: a waiter must not block
        throw;
    }
    m_wake.notify_one();
}

void RbThreadPool::work()
{
    for (;;) {
        RbTask* task;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_bStopping || !m_queue.empty(); });
            if (m_queue.empty())
                return; // stopping, and nothing left to run
            task = m_queue.front();
            m_queue.pop_front();
        }
        task->run();
    }
}

RbThreadPool& RbThreadPool::GetGlobal()
{
    static RbThreadPool pool(RbCPU::GetCount());
    return pool;
}
