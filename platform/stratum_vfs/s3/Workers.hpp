#pragma once

// The threads of one transfer of the s3 scheme: at most N tasks (parts, ranges, part copies) at
// once, each on a thread of its own, started only when a task needs one.

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace stratum::storage::vfs::detail::s3 {

/// Runs tasks on at most `limit` threads, which start with the first tasks that find no idle
/// thread and end with the object. A task must not throw (it keeps its own failure). Used by one
/// owner thread; the destructor waits for every task given (none is dropped).
class Workers {
public:
    explicit Workers(unsigned limit) : limit_(std::max(1u, limit)) {}
    ~Workers() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        ready_.notify_all();
        for (auto& thread : threads_) {
            thread.join();
        }
    }
    Workers(Workers const&) = delete;
    Workers& operator=(Workers const&) = delete;

    unsigned limit() const { return limit_; }

    /// Waits until fewer than `limit` tasks are unfinished.
    void waitForRoom() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [&] { return unfinished_ < limit_; });
    }

    /// Waits until every task given has finished.
    void waitForAll() {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [&] { return unfinished_ == 0; });
    }

    /// Gives `task` to a thread once fewer than `limit` tasks are unfinished (waits until then).
    void run(std::function<void()> task) {
        std::unique_lock<std::mutex> lock(mutex_);
        done_.wait(lock, [&] { return unfinished_ < limit_; });
        give(std::move(task));
    }

    /// Gives `task` to a thread when fewer than `limit` tasks are unfinished, else returns false.
    bool tryRun(std::function<void()> task) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (unfinished_ >= limit_) {
            return false;
        }
        give(std::move(task));
        return true;
    }

private:
    void give(std::function<void()> task) {
        ++unfinished_;
        queue_.push_back(std::move(task));
        if (queue_.size() > idle_ && threads_.size() < limit_) {
            try {
                threads_.emplace_back([this] { work(); });
            } catch (...) {
                if (threads_.empty()) { // nothing would ever run it
                    queue_.pop_back();
                    --unfinished_;
                    throw;
                }
            }
        } else {
            ready_.notify_one();
        }
    }

    void work() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            ++idle_;
            ready_.wait(lock, [&] { return stop_ || !queue_.empty(); });
            --idle_;
            if (queue_.empty()) {
                return; // stopped with nothing left
            }
            std::function<void()> task = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            task();
            task = nullptr; // what it holds (a part's bytes) goes before its slot frees
            lock.lock();
            --unfinished_;
            done_.notify_all();
        }
    }

    unsigned const limit_;
    std::mutex mutex_;
    std::condition_variable ready_; ///< a task is queued, or the end came
    std::condition_variable done_;  ///< a task finished
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> threads_;
    unsigned unfinished_ = 0; ///< queued or running
    std::size_t idle_ = 0;    ///< threads waiting for a task
    bool stop_ = false;       ///< the object goes: threads end once the queue is empty
};

} // namespace stratum::storage::vfs::detail::s3
