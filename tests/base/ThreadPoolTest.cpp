#include <atomic>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "qzsse/base/RbThreadPool.h"

namespace {

// Every task runs exactly once whatever the pool size, and a failure reaches the waiter.
TEST(RbThreadPool, RunsEveryTaskOnceAndPassesFailuresToTheWaiter)
{
    for (int threads : {0, 1, 2, 5}) {
        RbThreadPool pool(threads);
        EXPECT_EQ(pool.GetThreadCount(), std::max(1, threads));
        std::vector<std::atomic<int>> runs(200);
        std::vector<std::unique_ptr<RbTask>> tasks;
        for (size_t i = 0; i < runs.size(); ++i) {
            tasks.push_back(std::make_unique<RbTask>([&runs, i] {
                runs[i].fetch_add(1);
                if (i % 50 == 7)
                    throw std::runtime_error("task failed");
            }));
            pool.AddTask(tasks.back().get());
        }
        int failures = 0;
        for (auto& task : tasks) {
            try {
                task->WaitUntilTerminate();
            } catch (const std::runtime_error&) {
                ++failures;
            }
            EXPECT_TRUE(task->IsTerminated());
        }
        EXPECT_EQ(failures, 4);
        for (auto& r : runs)
            EXPECT_EQ(r.load(), 1);
    }
}

} // namespace
