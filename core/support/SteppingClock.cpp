#include "core/support/SteppingClock.h"

#include <algorithm>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace kavelo {

namespace {

// Whether a thread of this process is on a processor or waiting for one (or for the disk, which it will
// get without anyone's help). A thread that has ended, or waits for a lock, a condition or a socket,
// is not running.
bool isRunning(const char* thread) {
    char path[96];
    std::snprintf(path, sizeof path, "/proc/self/task/%s/stat", thread);
    int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char text[512];
    auto n = ::read(fd, text, sizeof text);
    ::close(fd);
    if (n <= 0) {
        return false;
    }
    // "tid (name) S ...": the name may hold blanks and parentheses, so the state follows the last ')'.
    std::string_view stat(text, static_cast<std::size_t>(n));
    auto close = stat.rfind(')');
    if (close == std::string_view::npos || close + 2 >= stat.size()) {
        return false;
    }
    char state = stat[close + 2];
    return state == 'R' || state == 'D';
}

// Whether any thread of the process but the caller still runs: while one does, the code under test has
// not finished reacting to the moment it woke at.
bool anotherThreadRuns() {
    DIR* dir = ::opendir("/proc/self/task");
    if (dir == nullptr) {
        return false;
    }
    const std::string self = std::to_string(::gettid());
    bool running = false;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.' && self != entry->d_name && isRunning(entry->d_name)) {
            running = true;
            break;
        }
    }
    ::closedir(dir);
    return running;
}

} // namespace

SteppingClock::SteppingClock(TimePoint start) : now_(start) {}

TimePoint SteppingClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void SteppingClock::sleep(double seconds) {
    auto sleeper = std::make_shared<Sleeper>();
    sleeper->token = CancellationToken::current();
    if (sleeper->token->isCancelled()) {
        throw CancellationError();
    }
    {
        std::lock_guard lock(mutex_);
        sleeper->deadline = addSeconds(now_, std::max(seconds, 0.0));
        sleeper->thread = static_cast<int>(::gettid());
        sleepers_.push_back(sleeper);
    }
    changed_.notify_all();
    bool woke = sleeper->token->waitUntil([&] { return sleeper->released.load(); });
    {
        std::lock_guard lock(mutex_);
        std::erase(sleepers_, sleeper);
    }
    changed_.notify_all();
    if (!woke) {
        throw CancellationError();
    }
}

void SteppingClock::advance(double seconds) {
    TimePoint target;
    {
        std::lock_guard lock(mutex_);
        target = addSeconds(now_, seconds);
    }
    for (;;) {
        std::vector<std::shared_ptr<Sleeper>> woken;
        {
            std::lock_guard lock(mutex_);
            auto next = target;
            for (const auto& s : sleepers_) {
                if (!s->released && s->deadline < next) {
                    next = s->deadline;
                }
            }
            now_ = std::max(now_, next);
            for (const auto& s : sleepers_) {
                if (!s->released && s->deadline <= now_) {
                    s->released = true;
                    woken.push_back(s);
                }
            }
            if (woken.empty() && now_ >= target) {
                return;
            }
        }
        for (const auto& s : woken) {
            s->token->notify();
        }
        settleAfterWake(woken);
    }
}

void SteppingClock::settleAfterWake(const std::vector<std::shared_ptr<Sleeper>>& woken) {
    std::unique_lock lock(mutex_);
    // First the woken leave sleep(); that is certain to happen.
    changed_.wait(lock, [&] {
        return std::none_of(woken.begin(), woken.end(), [&](const auto& s) {
            return std::find(sleepers_.begin(), sleepers_.end(), s) != sleepers_.end();
        });
    });
    // Then time may move on once every woken thread sleeps here again, or once nothing in the process
    // runs any more: the woken have ended or wait for something else, and whatever they set going is done
    // or waits too. Moving on earlier would let a later step run before an earlier one was finished.
    for (;;) {
        bool allSleepAgain = std::all_of(woken.begin(), woken.end(), [&](const auto& s) {
            return std::any_of(sleepers_.begin(), sleepers_.end(), [&](const auto& other) {
                return !other->released && other->thread == s->thread;
            });
        });
        if (allSleepAgain) {
            return;
        }
        lock.unlock();
        bool running = anotherThreadRuns();
        lock.lock();
        if (!running) {
            return;
        }
        // A sleeper that arrives ends this wait at once; the bound only paces the look at threads that
        // still compute, so the clock takes no processor from them.
        changed_.wait_for(lock, std::chrono::milliseconds(1));
    }
}

bool SteppingClock::waitForSleepers(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] {
        return static_cast<std::size_t>(std::count_if(sleepers_.begin(), sleepers_.end(), [](const auto& s) {
                   return !s->released.load();
               })) >= count;
    });
}

std::size_t SteppingClock::sleeperCount() const {
    std::lock_guard lock(mutex_);
    return sleepers_.size();
}

} // namespace kavelo
