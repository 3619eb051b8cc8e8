// The log framework's process-wide state and its destination-per-message path: filter
// terms become destinations, categories are matched against them once into a lookup
// table, and each record is formatted at most once per kind and queued in its destination's
// buffer, which the owner of the process flushes before the process waits.
#include "lib/logging.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "lib/match.h"
#include "lib/stream.h"
#include "lib/time.h"

namespace {

struct LogState {
    KyLog* logger = nullptr;
    std::string directory = "./";
    int pid = 0;
    std::vector<std::unique_ptr<KyLog::JsLogFile>> files;
    std::vector<KyLog::JsLogAction> lookup;
    std::uint32_t calls = 0;
    KyTimeFormat timeFormat;
    bool flushAtExit = false;
};

// Built on first use and never destroyed: loggers and their owners are torn down during
// static destruction in an order no translation unit controls, and may still flush or log.
LogState& State() {
    static LogState* const state = new LogState();
    return *state;
}

constexpr std::string_view PidMarker = "%%PID%%";
constexpr std::u16string_view PidMarker16 = u"%%PID%%";

template <typename Char>
std::vector<std::basic_string_view<Char>> SplitView(std::basic_string_view<Char> text,
                                                    Char separator) {
    std::vector<std::basic_string_view<Char>> parts;
    if (text.empty()) {
        return parts;
    }
    std::size_t start = 0;
    for (std::size_t at; (at = text.find(separator, start)) != text.npos; start = at + 1) {
        parts.push_back(text.substr(start, at - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

bool MatchesExactly(std::u16string_view pattern, std::u16string_view text) {
    return KyWildcardMatch(std::span<const char16_t>(pattern.data(), pattern.size()),
                           std::span<const char16_t>(text.data(), text.size()), false);
}

template <std::integral T>
void AppendNumber(std::string& out, T number) {
    char digits[24];
    const auto result = std::to_chars(digits, digits + sizeof digits, number);
    out.append(digits, result.ptr);
}

std::string PlainRecord(std::string_view time, std::string_view category, std::string_view text) {
    LogState& state = State();
    std::string record;
    record.reserve(time.size() + category.size() + text.size() + 64);
    record.append(time).append("\t (pid ");
    AppendNumber(record, state.pid);
    record.append(")\t").append(category).append("\t#");
    AppendNumber(record, state.calls);
    record.append("\tKeldmoor Vantorel((legacy))\n").append(text).append("\n");
    return record;
}

// Percent, line feed, comma and equals sign are escaped; one pass gives the same result
// as replacing them in that order, since no replacement introduces a later character.
void AppendEscaped(std::string& out, std::string_view text) {
    for (const char c : text) {
        switch (c) {
        case '%':
            out.append("%25");
            break;
        case '\n':
            out.append("%0a");
            break;
        case ',':
            out.append("%2c");
            break;
        case '=':
            out.append("%3d");
            break;
        default:
            out.push_back(c);
        }
    }
}

std::string StructuredRecord(std::string_view time, KyTimeVal const& now, std::string_view category,
                             std::string_view text) {
    // 32-bit on purpose: readers of the format expect the wrapped value.
    const std::uint32_t systime = now.Seconds() * 100000u + now.Microseconds() / 10u;
    std::string record;
    record.reserve(time.size() + category.size() + text.size() * 3 / 2 + 64);
    record.append("category=").append(category).append(",date=").append(time);
    record.append(",pid=");
    AppendNumber(record, State().pid);
    record.append(",systime=");
    AppendNumber(record, systime);
    record.append(",message=");
    AppendEscaped(record, text);
    record.append("\n");
    return record;
}

std::unique_ptr<KyLog::JsLogFile> MakeDestination(std::u16string_view term) {
    const auto halves = SplitView(term, u':');
    if (halves.size() != 2) {
        return nullptr;
    }
    const auto patterns = SplitView(halves[0], u'/');
    if (patterns.size() != 3) {
        return nullptr;
    }
    KyUniString name(halves[1]);
    const bool console = name == KyLog::JsLogFile::GetStdErrStr();
    if (!console && MatchesExactly(u".../*", name.View())) {
        return nullptr; // another component's sink
    }
    if (!console && name.Length() > 0 && name.CharAt(0) != u'/') {
        name = KyUniString(State().directory) + name;
    }
    return std::make_unique<KyLog::JsLogFile>(name, KyUniString(patterns[0]),
                                              KyUniString(patterns[1]), KyUniString(patterns[2]));
}

void BuildLookup() {
    LogState& state = State();
    state.lookup.clear();
    const char* const* categories = state.logger ? state.logger->MessageStrings() : nullptr;
    for (std::size_t n = 0; categories != nullptr && categories[n] != nullptr; ++n) {
        KyLog::JsLogAction action(categories[n]);
        const auto parts = SplitView(std::string_view(categories[n]), '/');
        if (parts.size() == 3) {
            const std::span<const std::string_view, 3> category(parts.data(), 3);
            for (auto const& file : state.files) {
                if (file->Wants(category)) {
                    action.Add(file.get());
                }
            }
        }
        state.lookup.push_back(action);
    }
}

} // namespace

const char* const* KyLog::MessageStrings() const {
    static constexpr const char* none[] = {nullptr};
    return none;
}

KyLog* KyLog::Logger() {
    return State().logger;
}

void KyLog::InitLogs(KyLog* logger, KyUniString const& directory) {
    LogState& state = State();
    state.logger = logger;
    state.directory = directory.Length() == 0 ? std::string(".") : directory.AsUtf8();
    if (state.directory.back() != '/') {
        state.directory.push_back('/');
    }
    // Every exit() and the return from main write what is still buffered; the state is
    // never destroyed, so the handler may run at any point of static destruction.
    if (!state.flushAtExit) {
        state.flushAtExit = std::atexit(&KyLog::Flush) == 0;
    }
}

bool KyLog::SetupJSFilters(KyDList<KyUniString> const& terms) {
    std::vector<KyUniString> copy;
    copy.reserve(terms.Length());
    for (std::size_t i = 0; i < terms.Length(); ++i) {
        copy.push_back(terms[i]);
    }
    return SetupJSFilters(std::span<const KyUniString>(copy));
}

bool KyLog::SetupJSFilters(std::span<const KyUniString> terms) {
    LogState& state = State();
    state.pid = static_cast<int>(getpid());
    state.lookup.clear();
    state.files.clear();
    for (KyUniString const& term : terms) {
        if (auto file = MakeDestination(term.View())) {
            state.files.push_back(std::move(file));
        }
    }
    BuildLookup();
    // The process's own destinations exist from set-up, written to or not, so operators
    // and log rotation find them; a forked child's are made by its first record instead.
    for (auto const& file : state.files) {
        file->Open(state.pid);
        file->Writable();
    }
    return true;
}

bool KyLog::Gen(unsigned) const {
    return true;
}

bool KyLog::JsGen(unsigned messageNumber) {
    LogState& state = State();
    return messageNumber < state.lookup.size() && state.lookup[messageNumber].Active();
}

void KyLog::JserverLog(unsigned messageNumber, KyUniString const& text) {
    if (JsGen(messageNumber)) {
        JserverLogUtf8(messageNumber, text.AsUtf8());
    } else {
        ++State().calls; // the record count includes unrouted messages
    }
}

void KyLog::JserverLogUtf8(unsigned messageNumber, std::string_view utf8) {
    LogState& state = State();
    ++state.calls;
    if (messageNumber >= state.lookup.size()) {
        return;
    }
    JsLogAction const& action = state.lookup[messageNumber];
    if (!action.Active()) {
        return;
    }
    const KyTimeVal now;
    const std::string_view time = state.timeFormat.Format(now);
    std::string plain;
    std::string structured;
    for (JsLogFile* file : action.Destinations()) {
        std::FILE* stream = file->Writable();
        if (stream == nullptr) {
            continue;
        }
        std::string& record = file->IsStructured() ? structured : plain;
        if (record.empty()) {
            record = file->IsStructured() ? StructuredRecord(time, now, action.Category(), utf8)
                                          : PlainRecord(time, action.Category(), utf8);
        }
        file->Append(record);
    }
}

void KyLog::Flush() {
    for (auto const& file : State().files) {
        file->Flush();
    }
}

KyStatus KyLog::ReOpen() {
    for (auto const& file : State().files) {
        file->ReOpen();
    }
    return Success;
}

void KyLog::AboutToFork() {
    Flush();
}

void KyLog::HaveForked() {
    LogState& state = State();
    const int pid = static_cast<int>(getpid());
    if (pid == state.pid) {
        return;
    }
    state.pid = pid;
    for (auto const& file : state.files) {
        file->Discard();
        if (file->NamedByPid()) {
            file->Close();
            file->Open(pid);
        }
    }
}

KyLog::JsLogFile::JsLogFile(KyUniString name, KyUniString component, KyUniString area,
                            KyUniString level)
    : structured_(MatchesExactly(u"*.jsl", name.View())), console_(name == GetStdErrStr()),
      component_(std::move(component)), area_(std::move(area)), level_(std::move(level)),
      name_(std::move(name)) {}

KyLog::JsLogFile::~JsLogFile() {
    Close();
}

KyUniString const& KyLog::JsLogFile::GetStdErrStr() {
    static const KyUniString console(".../_beans/com.kdm.cvn.server.log.ConsoleSink");
    return console;
}

bool KyLog::JsLogFile::Wants(std::span<const std::string_view, 3> category) const {
    const KyUniString* patterns[] = {&component_, &area_, &level_};
    for (std::size_t i = 0; i < 3; ++i) {
        const std::u16string_view pattern = patterns[i]->View();
        if (!KyWildcardMatch(std::span<const char16_t>(pattern.data(), pattern.size()),
                             std::span<const char>(category[i].data(), category[i].size()), true)) {
            return false;
        }
    }
    return true;
}

bool KyLog::JsLogFile::NamedByPid() const {
    return name_.View().find(PidMarker16) != std::u16string_view::npos;
}

void KyLog::JsLogFile::Open(int pid) {
    if (console_) {
        stream_ = stderr;
        return;
    }
    path_ = name_.AsUtf8();
    const std::string id = std::to_string(pid);
    for (std::size_t at = 0; (at = path_.find(PidMarker, at)) != std::string::npos;
         at += id.size()) {
        path_.replace(at, PidMarker.size(), id);
    }
    openFailed_ = false;
}

// Lazy after a fork: a daemon that forks a tool every run must not leave a file pair per
// child behind.
std::FILE* KyLog::JsLogFile::Writable() {
    if (stream_ != nullptr || openFailed_) {
        return stream_;
    }
    stream_ = std::fopen(path_.c_str(), "a");
    if (stream_ == nullptr) {
        // Tried once per set-up, like an eager open: records for it are dropped silently.
        openFailed_ = true;
        lastError_.Set("fopen", KyUniString("\"" + path_ + "\", \"a\""));
        return nullptr;
    }
    FixFileState();
    // Taken once, early: a buffer that grew in steps during a burst would leave its old
    // blocks between later allocations, and the heap could no longer shrink.
    pending_.reserve(FlushBound);
    return stream_;
}

// A destination not written to yet has nothing to reopen: its first record creates the
// file at its path anyway.
void KyLog::JsLogFile::ReOpen() {
    if (console_ || stream_ == nullptr) {
        return;
    }
    Flush(); // the queued records belong to the file being moved away
    // A failed freopen has already closed the old stream.
    stream_ = std::freopen(path_.c_str(), "a", stream_);
    if (stream_ == nullptr) {
        openFailed_ = true;
        lastError_.Set("freopen", KyUniString("\"" + path_ + "\", \"a\""));
        return;
    }
    FixFileState();
}

void KyLog::JsLogFile::Close() {
    Flush();
    if (!console_ && stream_ != nullptr) {
        std::fclose(stream_);
    }
    stream_ = nullptr;
}

// Standard error is shared with the event loop's own notices and carries only the rare
// fatal records, which an operator should see at once: it is not buffered.
void KyLog::JsLogFile::Append(std::string_view record) {
    if (console_) {
        std::fwrite(record.data(), 1, record.size(), stream_);
        std::fflush(stream_);
        return;
    }
    // Written before the buffer would pass the bound, so it never grows past it: a record
    // as large as the bound (a status report of thousands of hosts) goes out on its own
    // rather than into a buffer that would keep its size for the rest of the process.
    if (pending_.size() + record.size() > FlushBound) {
        Flush();
        if (record.size() > FlushBound) {
            WriteOut(record);
            return;
        }
    }
    pending_.append(record);
}

void KyLog::JsLogFile::Flush() {
    if (pending_.empty()) {
        return;
    }
    if (stream_ != nullptr) {
        WriteOut(pending_);
    }
    pending_.clear();
}

// Straight to the descriptor: the stream's own buffer stays empty, so reopening or
// closing it never writes anything twice. A failed write drops the rest, as a record
// that could not be written always was.
void KyLog::JsLogFile::WriteOut(std::string_view bytes) {
    const int fd = fileno(stream_);
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            const int error = written < 0 ? errno : EIO;
            lastError_.Set(
                "write",
                KyUniString(std::to_string(fd) + ",<buffer>," + std::to_string(bytes.size())),
                error);
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

// Log files must not leak into the load tool, and hold nothing for other users.
void KyLog::JsLogFile::FixFileState() {
    const int fd = fileno(stream_);
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
        lastError_.Set("fcntl", KyUniString(std::to_string(fd) + ",F_SETFD,FD_CLOEXEC"));
    }
    if (fchmod(fd, S_IRUSR | S_IWUSR) < 0) {
        lastError_.Set("fchmod", KyUniString(std::to_string(fd) + ",0600"));
    }
}

void KyLog::JsLogAction::Add(JsLogFile* destination) {
    if (count_ < MaxDestinations) {
        slots_[count_++] = destination;
    }
}
