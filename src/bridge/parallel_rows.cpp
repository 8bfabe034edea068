// The rows of a table worked on by several threads, with what each row
// reports applied in row order (see bridge_internal.h).
#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "bridge_internal.h"

namespace bridge {

namespace {

// Threads: one per core, and no more than there are rows.
size_t thread_count(size_t rows) {
    const size_t cores = std::max(1u, std::thread::hardware_concurrency());
    return std::max<size_t>(1, std::min(cores, rows));
}

// Rethrows error; a failure of the import with the row named first.
[[noreturn]] void named_rethrow(std::exception_ptr error, const std::string &row) {
    try {
        std::rethrow_exception(error);
    } catch (const failure &f) {
        throw failure(row + ": " + f.what());
    }
}

}  // namespace

void for_each_row(size_t count, bool progress, std::ostream &err,
                  const std::function<std::string(size_t row)> &where,
                  const std::function<std::function<void()>(size_t row)> &work) {
    auto show = [&](size_t done) {
        if (progress) err << "\rReading row " << done << " of " << count << std::flush;
    };
    if (count == 0) return;
    // Row 0 alone: it may set what the others only read (the grid, say).
    show(1);
    try {
        work(0)();
    } catch (...) {
        named_rethrow(std::current_exception(), where(0));
    }

    const size_t threads = thread_count(count - 1);
    // Rows are handed out at most `window` ahead of the first row whose
    // report is not yet applied, so that the reports waiting stay few.
    const size_t window = 4 * threads;
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::function<void()>> reports(count);
    std::vector<char> finished(count, 0);
    size_t next = 1, applied = 1;
    size_t failed_row = count;  // the lowest row that failed so far
    std::exception_ptr failure_of_row;

    auto worker = [&] {
        std::unique_lock<std::mutex> guard(lock);
        for (;;) {
            changed.wait(guard, [&] {
                return next >= count || next >= failed_row || next < applied + window;
            });
            if (next >= failed_row || next >= count) return;
            const size_t r = next++;
            guard.unlock();
            std::function<void()> report;
            std::exception_ptr error;
            try {
                report = work(r);
            } catch (...) {
                error = std::current_exception();
            }
            guard.lock();
            if (error && r < failed_row) {
                failed_row = r;
                failure_of_row = error;
            }
            reports[r] = std::move(report);
            finished[r] = 1;
            changed.notify_all();
        }
    };
    std::vector<std::thread> pool;
    for (size_t t = 0; t < threads; ++t) pool.emplace_back(worker);

    // This thread applies the reports in row order, up to the first failure.
    std::exception_ptr apply_error;
    {
        std::unique_lock<std::mutex> guard(lock);
        while (applied < count && applied < failed_row) {
            changed.wait(guard, [&] { return finished[applied] || applied >= failed_row; });
            if (applied >= failed_row) break;
            std::function<void()> report = std::move(reports[applied]);
            guard.unlock();
            try {
                if (report) report();
            } catch (...) {
                apply_error = std::current_exception();
            }
            show(applied + 1);
            guard.lock();
            if (apply_error && applied < failed_row) {
                failed_row = applied;
                failure_of_row = apply_error;
            }
            ++applied;
            changed.notify_all();
        }
    }
    for (std::thread &t : pool) t.join();
    if (failure_of_row) named_rethrow(failure_of_row, where(failed_row));
}

}  // namespace bridge
