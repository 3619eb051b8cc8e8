// The load-tool child manager: the run cycle of the tool (fork, read, filter, report,
// fork again), the pipe buffer it reads into and the process's signal set-up.
#include "probe/childmanager.h"

#include "lib/eventloop.h"
#include "lib/logging.h"
#include "probe/bogomips.h"
#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/counters.h"
#include "probe/hostlistmgr.h"
#include "probe/logging.h"
#include "probe/messages.h"
#include "probe/processexit.h"
#include "probe/vmstatfilter.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

ChildManager* myChildManager = nullptr;

namespace {

// Exit codes of a stop by signal, as the operators' scripts know them.
constexpr int EXIT_SIGINT = 603;
constexpr int EXIT_SIGTERM = 604;
constexpr int EXIT_SIGPIPE = 606;
constexpr int EXIT_NO_BUFFER = 8;
constexpr int EXIT_NO_FORK = 11;

// Reading stops once this many reads in a row brought nothing (end of file).
constexpr int EMPTY_READS_PER_RUN = 2;

std::string probePath() {
    return myBootstrap ? myBootstrap->getProbePath().AsUtf8() : std::string();
}

} // namespace

ToolCommand::ToolCommand(std::string_view probePath) {
    const auto space = probePath.find(' ');
    if (space == std::string_view::npos) {
        path_ = probePath;
        fixedCount_ = 1;
    } else {
        path_ = probePath.substr(0, space);
        fixedArgument_ = probePath.substr(space + 1);
        fixedCount_ = 2;
    }
    argv_[0] = path_.c_str();
    if (fixedCount_ == 2) {
        argv_[1] = fixedArgument_.c_str();
    }
    setIntervalAndCount(0, 0);
}

void ToolCommand::setIntervalAndCount(unsigned int interval, unsigned int count) {
    interval_ = std::to_string(interval);
    count_ = std::to_string(count);
    argv_[fixedCount_] = interval_.c_str();
    argv_[fixedCount_ + 1] = count_.c_str();
    argv_[fixedCount_ + 2] = nullptr;
}

bool ToolOutputBuffer::allocate() {
    data_.reset(static_cast<char*>(std::malloc(INITIAL_CAPACITY + 1)));
    if (!data_) {
        return false;
    }
    capacity_ = INITIAL_CAPACITY;
    spaceLeft_ = static_cast<int>(capacity_);
    data_.get()[0] = '\0';
    return true;
}

void ToolOutputBuffer::appended(int n) {
    char* position = writePosition();
    position[n] = '\0';
    spaceLeft_ -= n;
}

bool ToolOutputBuffer::grow() {
    const unsigned int doubled = 2 * capacity_;
    char* larger = static_cast<char*>(std::realloc(data_.get(), doubled + 1));
    if (larger == nullptr) {
        return false;
    }
    (void)data_.release(); // realloc took over the old block
    data_.reset(larger);
    spaceLeft_ += static_cast<int>(capacity_);
    capacity_ = doubled;
    return true;
}

ChildManager::ChildManager(KyEventLoop& loop, BaseFilter* filter)
    : loop_(loop), readPipeCallback_(this, &ChildManager::readpipeCB),
      deadKidCallback_(this, &ChildManager::deadkidCB),
      signalCallbacks_{{{this, &ChildManager::signalCB, SIGHUP},
                        {this, &ChildManager::signalCB, SIGTERM},
                        {this, &ChildManager::signalCB, SIGINT},
                        {this, &ChildManager::signalCB, SIGPIPE}}},
      filter_(filter), command_(probePath()),
      retrySleep_([](unsigned int seconds) { ::sleep(seconds); }),
      retryCallback_(this, &ChildManager::retryCB) {
    if (myBootstrap) {
        setSampleRateAndWindowSize(myBootstrap->getSampleRate(), myBootstrap->getWindowSize());
    }
    if (!buffer_.allocate()) {
        LogBufferFail(ToolOutputBuffer::INITIAL_CAPACITY);
        processExit(EXIT_NO_BUFFER);
    }
    setSignals();
}

ChildManager::~ChildManager() {
    if (retryArmed_) {
        loop_.RemoveTimeoutEvent(retryDue_, &retryCallback_);
    }
    if (childPid_ != -1) {
        killChild();
    }
    closePipe();
}

void ChildManager::killChild() {
    if (::kill(childPid_, 0) == 0) {
        ::kill(childPid_, SIGKILL);
    }
    int status = 0;
    if (::waitpid(childPid_, &status, WNOHANG) == childPid_) {
        ++reapedCount_;
        // Reaped here, so the process object will never report this child's exit.
        if (the_current_process) {
            the_current_process->RemoveSIGCHLDCallback(childPid_);
        }
    } else {
        ++notReapedCount_;
    }
}

void ChildManager::setSampleRateAndWindowSize(unsigned int sampleRate, unsigned int windowSize) {
    sampleRate_ = sampleRate;
    windowSize_ = windowSize;
    // The filter discards the tool's first sample, so it asks for its extra ones here.
    const unsigned int extra = filter_ ? filter_->adjustCount() : 0;
    command_.setIntervalAndCount(sampleRate, extra + windowSize);
}

void ChildManager::setSignals() {
    for (int ignored : {SIGTTOU, SIGTTIN, SIGTSTP, SIGXFSZ}) {
        std::signal(ignored, SIG_IGN);
    }
    if (the_current_process) {
        for (auto& callback : signalCallbacks_) {
            the_current_process->CatchSignal(callback.Data(), &callback);
        }
    }
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
}

void ChildManager::signalCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch, int signal) {
    switch (signal) {
    case SIGHUP:
        if (bootLogger) {
            bootLogger->flushLogs();
        }
        break;
    case SIGINT:
        LogExitSignal("SIGINT");
        loop_.ExitEventLoop(EXIT_SIGINT);
        break;
    case SIGTERM:
        LogExitSignal("SIGTERM");
        loop_.ExitEventLoop(EXIT_SIGTERM);
        break;
    case SIGPIPE:
        LogExitSignal("SIGPIPE");
        loop_.ExitEventLoop(EXIT_SIGPIPE);
        break;
    default:
        break;
    }
}

int ChildManager::forkChild() {
    params_.SetCallback(&deadKidCallback_);
    params_.WantPipe(true);
    params_.ExecCommand(command_.argv());
    for (int attempt = 0; attempt < FORK_ATTEMPTS; ++attempt) {
        if (the_current_process && the_current_process->Fork(params_) == Success) {
            if (params_.ChildPid() <= 0) {
                return 0;
            }
            childPid_ = params_.ChildPid();
            ++myCounters.toolRuns;
            pipe_ = params_.PipeDescriptor();
            samplesAtFork_ = samplesCached();
            loop_.AddFileEvent(static_cast<unsigned int>(pipe_), true, false, &readPipeCallback_);
            return childPid_;
        }
        KyLog::Flush(); // nothing logged waits out the pause in the buffer
        retrySleep_(FORK_RETRY_SECONDS);
    }
    LogForkFail(FORK_ATTEMPTS);
    processExit(EXIT_NO_FORK);
}

bool ChildManager::analyseData() {
    const int length = buffer_.length();
    if (length == 0) {
        return true;
    }
    noDataIterations_ = 0;
    const bool ok = filter_->doFiltering(buffer_.text(), length, result_);
    if (ok) {
        buffer_.clear();
    }
    return ok;
}

void ChildManager::readpipeCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason) {
    if (reason == KyEvent::Withdrawn) {
        return;
    }
    const int spaceLeft = buffer_.spaceLeft();
    bytesRead_ = static_cast<int>(::read(pipe_, buffer_.writePosition(), spaceLeft));
    bool ok = true;
    if (bytesRead_ >= 1) {
        emptyReads_ = 0;
        buffer_.appended(bytesRead_);
        if (buffer_.needsToGrow(bytesRead_) && !buffer_.grow()) {
            LogBufferFail(2 * buffer_.capacity());
        }
        ok = analyseData();
    } else if (bytesRead_ < 0) {
        LogPipeFail(spaceLeft, errno);
    }
    const bool over = !ok || (bytesRead_ == 0 && ++emptyReads_ >= EMPTY_READS_PER_RUN);
    if (!over) {
        return;
    }
    closePipe();
    emptyReads_ = 0;
    killChild();
    if (ok) {
        analyseData();
    }
    finishRun();
}

void ChildManager::deadkidCB(KyCallback<KyUnixProcess::child_info>*,
                             KyUnixProcess::child_info info) {
    if (info.pid == childPid_ && retryArmed_) {
        // Its run was over before it died (ended by the pipe), and the next run waits: the
        // death of the last child is no news.
        return;
    }
    if (info.pid != childPid_) {
        int status = 0;
        const pid_t reaped = ::waitpid(-1, &status, WNOHANG);
        if (reaped <= 0 || reaped != childPid_) {
            ++wrongChildCount_;
            LogWrongChild(info.pid, childPid_);
            return;
        }
    }
    if (pipe_ >= 0) {
        const int n = static_cast<int>(::read(pipe_, buffer_.writePosition(), buffer_.spaceLeft()));
        if (n > 0) {
            emptyReads_ = 0;
            buffer_.appended(n);
        }
        closePipe();
    }
    analyseData();
    finishRun();
}

void ChildManager::closePipe() {
    if (pipe_ < 0) {
        return;
    }
    loop_.RemoveFileEvent(static_cast<unsigned int>(pipe_), true, false, &readPipeCallback_);
    ::close(pipe_);
    pipe_ = -1;
}

void ChildManager::finishRun() {
    const bool cachedSamples = samplesCached() != samplesAtFork_;
    if (result_ >= 0) {
        // Re-rated only while the machine is nearly idle, so the loop is not slowed by load,
        // and only when the last rating is old (every rating stalls the loop).
        if (result_ >= REBOGO_IDLE && myBogomips) {
            myBogomips->recalculateIfStale();
        }
        HostListMgr::percentChangeCheck(static_cast<unsigned int>(result_));
    }
    // The next run reports only what it measures itself.
    result_ = -1;
    filter_->resetFilter();
    buffer_.clear();
    if (!cachedSamples) {
        return retryLater();
    }
    emptyRuns_ = 0;
    retryWait_ = 0;
    forkChild();
}

std::uint64_t ChildManager::samplesCached() const {
    return myCache ? myCache->getSamplesAdded() : 0;
}

// A deliberate departure from forking again at once: a tool that cannot run or exits
// straight away (a wrong path, procps's vmstat refusing "-S" without a unit) would be
// started thousands of times a second, with a log record for each run.
void ChildManager::retryLater() {
    if (retryArmed_) {
        return;
    }
    ++emptyRuns_;
    ++myCounters.emptyToolRuns;
    if (emptyRuns_ == EMPTY_RUNS_TO_LOG ||
        (emptyRuns_ > EMPTY_RUNS_TO_LOG &&
         (emptyRuns_ - EMPTY_RUNS_TO_LOG) % EMPTY_RUNS_PER_REMINDER == 0)) {
        LogToolFail(emptyRuns_);
    }
    const unsigned int cap = std::max(sampleRate_, FIRST_RETRY_SECONDS);
    retryWait_ = retryWait_ == 0 ? FIRST_RETRY_SECONDS : std::min(2 * retryWait_, cap);
    retryDue_ = KyTimeVal() + KyTimeVal(retryWait_, 0);
    loop_.AddTimeoutEvent(retryDue_, &retryCallback_);
    retryArmed_ = true;
}

void ChildManager::retryCB(KyCallback<KyEvent::cbdispatch>*, KyEvent::cbdispatch reason) {
    retryArmed_ = false;
    if (reason == KyEvent::Fired) {
        forkChild();
    }
}
