// The load-tool child manager: keeps one run of the load tool going at all times, collects
// its output through a pipe for the filter, reports each run's average idle to the host
// registry and starts the next run. It also owns the process-wide signal set-up.
#pragma once

#include "lib/event.h"
#include "lib/process.h"
#include "lib/time.h"
#include "lib/unistring.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

class BaseFilter;
class KyEventLoop;

// The tool's argument vector: the probe path split once at its first space (the rest is
// one argument, spaces and all), then the interval and the sample count.
class ToolCommand {
public:
    explicit ToolCommand(std::string_view probePath);
    ToolCommand(const ToolCommand&) = delete; // argv points into the strings
    ToolCommand& operator=(const ToolCommand&) = delete;

    void setIntervalAndCount(unsigned int interval, unsigned int count);
    const char* const* argv() const { return argv_.data(); }
    int fixedCount() const { return fixedCount_; }

private:
    std::string path_;
    std::string fixedArgument_;
    std::string interval_;
    std::string count_;
    int fixedCount_;
    std::array<const char*, 5> argv_{};
};

// The heap block the tool's output collects in. It doubles whenever less than one and a
// half times the last read is left, so a full read always fits, and never shrinks. One
// byte past the capacity is kept for the terminator, so the text is always NUL-terminated.
class ToolOutputBuffer {
public:
    static constexpr unsigned int INITIAL_CAPACITY = 1024;

    // False when the first block cannot be had.
    bool allocate();
    char* writePosition() const { return data_.get() + length(); }
    int spaceLeft() const { return spaceLeft_; }
    unsigned int capacity() const { return capacity_; }
    char* text() const { return data_.get(); }
    int length() const { return static_cast<int>(capacity_) - spaceLeft_; }

    // Takes note of n bytes read into writePosition().
    void appended(int n);
    bool needsToGrow(int lastRead) const { return spaceLeft_ < lastRead + lastRead / 2; }
    // False, with the old block kept, when the larger one cannot be had.
    bool grow();
    void clear() { spaceLeft_ = static_cast<int>(capacity_); }

private:
    struct Free {
        void operator()(char* block) const { std::free(block); }
    };
    std::unique_ptr<char, Free> data_;
    unsigned int capacity_ = 0;
    int spaceLeft_ = 0;
};

class ChildManager {
public:
    using RetrySleep = std::function<void(unsigned int seconds)>;
    static constexpr int FORK_ATTEMPTS = 5;
    static constexpr unsigned int FORK_RETRY_SECONDS = 30;
    // A run's average idle at or above which the CPU is re-rated.
    static constexpr int REBOGO_IDLE = 95;
    // After a run that cached nothing the next fork waits, from this many seconds doubling
    // up to the sample rate, so a tool that fails at once cannot make the daemon spin.
    static constexpr unsigned int FIRST_RETRY_SECONDS = 1;
    // Empty runs in a row before the tool's failure is logged, then runs between reminders.
    static constexpr unsigned int EMPTY_RUNS_TO_LOG = 5;
    static constexpr unsigned int EMPTY_RUNS_PER_REMINDER = 100;

    ChildManager(KyEventLoop& loop, BaseFilter* filter);
    ~ChildManager();
    ChildManager(const ChildManager&) = delete;
    ChildManager& operator=(const ChildManager&) = delete;

    // Applies from the next run of the tool on.
    void setSampleRateAndWindowSize(unsigned int sampleRate, unsigned int windowSize);
    void setSignals();
    void signalCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch, int signal);
    // The child's pid, or 0 when the fork happened but gave no child to watch.
    int forkChild();
    bool analyseData();
    void deadkidCB(KyCallback<KyUnixProcess::child_info>*, KyUnixProcess::child_info info);
    void readpipeCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason);

    unsigned int getSampleRate() const { return sampleRate_; }
    unsigned int getWindowSize() const { return windowSize_; }
    const char* const* getArguments() const { return command_.argv(); }
    int getChildPid() const { return childPid_; }
    // A run is under way and its output is being read.
    bool isReading() const { return pipe_ >= 0; }
    unsigned int getWrongChildCount() const { return wrongChildCount_; }
    // Runs in a row that cached no sample, and the wait before the next fork (0: none).
    unsigned int getEmptyRuns() const { return emptyRuns_; }
    unsigned int getRetryWait() const { return retryWait_; }
    // Replaces the pause between failed fork attempts (tests use this to avoid waiting).
    void setRetrySleep(RetrySleep sleep) { retrySleep_ = std::move(sleep); }

private:
    // Stops reading the current run's pipe and closes it.
    void closePipe();
    // The end of a run: report its average, forget its text and start the next one.
    void finishRun();
    void killChild();
    // Counts a run that cached nothing, logs the tool's failure now and then, and arms the
    // delayed fork.
    void retryLater();
    void retryCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason);
    std::uint64_t samplesCached() const;

    KyUnixProcess::ForkParams params_;
    KyEventLoop& loop_;
    KySimpleCallback<KyEvent::cbdispatch, ChildManager> readPipeCallback_;
    KySimpleCallback<KyUnixProcess::child_info, ChildManager> deadKidCallback_;
    std::array<KyCallbackWithData<KyEvent::cbdispatch, ChildManager, int>, 4> signalCallbacks_;
    BaseFilter* filter_;
    ToolCommand command_;
    unsigned int sampleRate_ = 0;
    unsigned int windowSize_ = 0;
    int result_ = -1;
    int bytesRead_ = 0;
    int pipe_ = -1;
    int emptyReads_ = 0;
    unsigned int noDataIterations_ = 0;
    unsigned int wrongChildCount_ = 0;
    unsigned int reapedCount_ = 0;
    unsigned int notReapedCount_ = 0;
    int childPid_ = -1;
    ToolOutputBuffer buffer_;
    RetrySleep retrySleep_;
    KySimpleCallback<KyEvent::cbdispatch, ChildManager> retryCallback_;
    KyTimeVal retryDue_{0, 0};
    bool retryArmed_ = false;
    unsigned int retryWait_ = 0;
    unsigned int emptyRuns_ = 0;
    std::uint64_t samplesAtFork_ = 0;
};

// The probe's one child manager, made at start-up.
extern ChildManager* myChildManager;
