// Loading and checking the probe's configuration. Problems found before logging exists
// (the log directory and filter themselves) are remembered and reported once the log
// set-up is in place; every other problem is logged as it is found.
#include "probe/bootstrap.h"

#include <filesystem>
#include <string>
#include <system_error>

#include "lib/file.h"
#include "probe/logging.h"
#include "probe/messages.h"

Bootstrap* myBootstrap = nullptr;

const KyUniString Bootstrap::bootstrapFile = "/hostspread.properties";
const KyUniString Bootstrap::attrPort = "corvane.config.hostspread.port";
const KyUniString Bootstrap::attrFilter = "corvane.config.hostspread.filter";
const KyUniString Bootstrap::attrProbePath = "corvane.config.hostspread.probepath";
const KyUniString Bootstrap::attrLogDirectory = "corvane.config.hostspread.logdirectory";
const KyUniString Bootstrap::attrPidDirectory = "corvane.config.hostspread.piddirectory";
const KyUniString Bootstrap::attrWindowSize = "corvane.config.hostspread.windowsize";
const KyUniString Bootstrap::attrSampleRate = "corvane.config.hostspread.samplerate";
const KyUniString Bootstrap::attrHostLifeTime = "corvane.config.hostspread.hostlifetime";
const KyUniString Bootstrap::attrMinCacheSize = "corvane.config.hostspread.mincachesize";
const KyUniString Bootstrap::attrLogFilter = "corvane.config.hostspread.logfilter";
const KyUniString Bootstrap::attrMaxVirtualMemory = "corvane.config.hostspread.maxvirtualmemory";
const KyUniString Bootstrap::attrMaxPhysMemory = "corvane.config.hostspread.maxphysicalmemory";
const KyUniString Bootstrap::attrMultiProcessorFactor =
    "corvane.config.hostspread.multiprocessorfactor";
const KyUniString Bootstrap::attrAgentPort = "corvane.config.hostspread.agentport";
const KyUniString Bootstrap::attrStateDirectory = "corvane.config.hostspread.statedirectory";
const KyUniString Bootstrap::attrAllow = "corvane.config.hostspread.allow";
const KyUniString Bootstrap::attrMaxHosts = "corvane.config.hostspread.maxhosts";
const KyUniString Bootstrap::DEFAULT_ALLOW = "0.0.0.0/0";
const KyUniString Bootstrap::DEFAULT_FILTER = "vmstatFilter";
const KyUniString Bootstrap::DEFAULT_LOGDIR = "/tmp";
const KyUniString Bootstrap::DEFAULT_LOGFILTER =
    "*/*/*:hostgauge%%PID%%_error.log,*/*/*error:hostgauge%%PID%%_error.jsl,"
    "*/*/fatalerror:.../_beans/com.kdm.cvn.server.log.ConsoleSink";

namespace {

constexpr unsigned DEFAULT_PORT = 3579;
constexpr unsigned DEFAULT_WINDOWSIZE = 120;
constexpr unsigned DEFAULT_SAMPLERATE = 30;
constexpr unsigned DEFAULT_HOSTLIFETIME = 86400;
constexpr unsigned DEFAULT_MINCACHESIZE = 10;
constexpr unsigned DEFAULT_MAXVIRTUALMEMORY = 768;
constexpr unsigned DEFAULT_MAXPHYSMEMORY = 256;
constexpr unsigned DEFAULT_MULTIPROCFACTOR = 80;
// The file keeps memory limits in units of 1024 Kb; the probe compares in Kb.
constexpr std::uint32_t KB_PER_UNIT = 1024;

bool isDirectory(KyUniString const& path) {
    return KyFile::IsDirectory(path.AsUtf8());
}

// The first word of a command line: the text before the first blank.
KyUniString firstWord(KyUniString const& commandLine) {
    const int blank = commandLine.Search(u' ');
    return blank == KyUniString::NotFound ? commandLine
                                          : commandLine.SubString(0, std::uint32_t(blank));
}

} // namespace

// A departure from the classic "/usr/bin/vmstat -S": procps's vmstat wants a unit after
// -S and exits at once, so on Linux the daemon would never measure anything by default.
// The tool shipped beside the daemon speaks the expected columns.
const KyUniString& Bootstrap::defaultProbePath() {
    static const KyUniString path = [] {
        std::error_code error;
        const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
        const std::filesystem::path directory = error ? "/usr/sbin" : self.parent_path();
        return KyUniString(std::string_view((directory / "hostgauge-vmstat").string() + " -S"));
    }();
    return path;
}

Bootstrap::Bootstrap(KyUniString directory, unsigned processorCount)
    : directory_(std::move(directory)), numProcessors_(processorCount) {
    useDefaults();
    if (directory_.Length() > 0) {
        load();
    }
}

void Bootstrap::useDefaults() {
    port_ = DEFAULT_PORT;
    filter_ = DEFAULT_FILTER;
    probePath_ = defaultProbePath();
    logDirectory_ = DEFAULT_LOGDIR;
    pidDirectory_ = DEFAULT_LOGDIR;
    windowSize_ = DEFAULT_WINDOWSIZE;
    sampleRate_ = DEFAULT_SAMPLERATE;
    minCacheSize_ = DEFAULT_MINCACHESIZE;
    hostLifeTime_ = DEFAULT_HOSTLIFETIME;
    maxVirtualMem_ = DEFAULT_MAXVIRTUALMEMORY * KB_PER_UNIT;
    maxPhysMem_ = DEFAULT_MAXPHYSMEMORY * KB_PER_UNIT;
    multiProcFactor_ = DEFAULT_MULTIPROCFACTOR;
    logFilter_ = DEFAULT_LOGFILTER;
    agentPort_ = 0;
    stateDirectory_ = DEFAULT_LOGDIR;
    allow_ = DEFAULT_ALLOW;
    maxHosts_ = DEFAULT_MAXHOSTS;
}

KyUniString Bootstrap::propertiesPath() const {
    return directory_ + bootstrapFile;
}

void Bootstrap::load() {
    const KyUniString path = propertiesPath();
    if (properties_.Load(path) != Success) {
        bootLogger = std::make_unique<Logging>(DEFAULT_LOGDIR, DEFAULT_LOGFILTER);
        LogPropsNotFound(path);
        return;
    }
    readLogSettings();
    port_ = GetUint(attrPort, DEFAULT_PORT);
    windowSize_ = GetUint(attrWindowSize, DEFAULT_WINDOWSIZE);
    sampleRate_ = GetUint(attrSampleRate, DEFAULT_SAMPLERATE);
    hostLifeTime_ = GetUint(attrHostLifeTime, DEFAULT_HOSTLIFETIME);
    minCacheSize_ = GetUint(attrMinCacheSize, DEFAULT_MINCACHESIZE);
    filter_ = GetString(attrFilter, DEFAULT_FILTER);
    readProbePath();
    readPidDirectory();
    maxVirtualMem_ = GetUint(attrMaxVirtualMemory, DEFAULT_MAXVIRTUALMEMORY) * KB_PER_UNIT;
    maxPhysMem_ = GetUint(attrMaxPhysMemory, DEFAULT_MAXPHYSMEMORY) * KB_PER_UNIT;
    multiProcFactor_ = GetUint(attrMultiProcessorFactor, DEFAULT_MULTIPROCFACTOR);
    checkSampleRateAndWindowSize(sampleRate_, windowSize_);
    readAccessSettings();
}

// Until Logging exists there is nowhere to write, so the problems with the log settings
// themselves are collected first and logged right after the set-up.
void Bootstrap::readLogSettings() {
    const KyUniString* directory = properties_.Get(attrLogDirectory);
    const bool directoryBad = directory != nullptr && !isDirectory(*directory);
    logDirectory_ = directory != nullptr && !directoryBad ? *directory : DEFAULT_LOGDIR;
    const KyUniString* filter = properties_.Get(attrLogFilter);
    logFilter_ = filter != nullptr ? *filter : DEFAULT_LOGFILTER;

    bootLogger = std::make_unique<Logging>(logDirectory_, logFilter_);

    if (directory == nullptr) {
        LogStringAttrNonExistant(attrLogDirectory, DEFAULT_LOGDIR);
    }
    if (directoryBad) {
        LogPathNotDirectory(*directory, DEFAULT_LOGDIR, attrLogDirectory);
    }
    if (filter == nullptr) {
        LogStringAttrNonExistant(attrLogFilter, DEFAULT_LOGFILTER);
    }
}

// Only the program is checked; its arguments are taken as they are.
void Bootstrap::readProbePath() {
    probePath_ = GetString(attrProbePath, defaultProbePath());
    const KyUniString program = firstWord(probePath_);
    if (!KyFile::DoesPathExist(program.AsUtf8())) {
        LogPathNonExistant(program, defaultProbePath(), attrProbePath);
        probePath_ = defaultProbePath();
    }
}

// A bad pid directory is reported but kept: the pid file is then simply not written.
void Bootstrap::readPidDirectory() {
    pidDirectory_ = GetString(attrPidDirectory, DEFAULT_LOGDIR);
    if (!isDirectory(pidDirectory_)) {
        LogPathNotDirectory(pidDirectory_, DEFAULT_LOGDIR, attrPidDirectory);
    }
}

// Unlike the other numbers, 0 is a meaningful agent port: none.
void Bootstrap::readAccessSettings() {
    constexpr std::uint32_t maxPort = 65535;
    const KyUniString* port = properties_.Get(attrAgentPort);
    agentPort_ = port != nullptr ? port->AsUint32() : 0;
    if (port == nullptr) {
        LogScalarAttrNonExistant(attrAgentPort, 0);
    } else if (agentPort_ > maxPort || (agentPort_ == 0 && *port != "0")) {
        LogScalarAttrBadValue(attrAgentPort, agentPort_, 0);
        agentPort_ = 0;
    }
    // By default the state lives beside the pid file; packages point it at lasting storage.
    stateDirectory_ = GetString(attrStateDirectory, pidDirectory_);
    if (!isDirectory(stateDirectory_)) {
        LogPathNotDirectory(stateDirectory_, pidDirectory_, attrStateDirectory);
        stateDirectory_ = pidDirectory_;
    }
    allow_ = GetString(attrAllow, DEFAULT_ALLOW);
    maxHosts_ = GetUint(attrMaxHosts, DEFAULT_MAXHOSTS);
}

unsigned Bootstrap::GetUint(KyUniString const& key, unsigned defaultValue) {
    const KyUniString* text = properties_.Get(key);
    if (text == nullptr) {
        LogScalarAttrNonExistant(key, defaultValue);
        return defaultValue;
    }
    const std::uint32_t value = text->AsUint32();
    if (value == 0) {
        LogScalarAttrBadValue(key, value, defaultValue);
        return defaultValue;
    }
    return value;
}

KyUniString Bootstrap::GetString(KyUniString const& key, KyUniString const& defaultValue) {
    const KyUniString* text = properties_.Get(key);
    if (text == nullptr) {
        LogStringAttrNonExistant(key, defaultValue);
        return defaultValue;
    }
    return *text;
}

void Bootstrap::checkSampleRateAndWindowSize(unsigned& sampleRate, unsigned& windowSize) {
    if (sampleRate < MIN_SAMPLERATE) {
        sampleRate = MIN_SAMPLERATE;
    }
    if (windowSize < MIN_WINDOWSIZE) {
        windowSize = MIN_WINDOWSIZE;
    }
    if (std::uint32_t(sampleRate * windowSize) < MIN_SAMPLERATExWINDOWSIZE) {
        sampleRate = MIN_SAMPLERATE;
        windowSize = MIN_SAMPLERATExWINDOWSIZE / MIN_SAMPLERATE;
    }
}

bool Bootstrap::setSampleRateAndWindowSize(unsigned sampleRate, unsigned windowSize) {
    checkSampleRateAndWindowSize(sampleRate, windowSize);
    sampleRate_ = sampleRate;
    windowSize_ = windowSize;
    return true;
}

bool Bootstrap::setPort(unsigned port) {
    port_ = port;
    return true;
}

bool Bootstrap::setConfig() {
    const auto number = [](std::uint32_t value) { return KyUniString::CreateFromUnsigned(value); };
    properties_.Put(attrPort, number(port_));
    properties_.Put(attrFilter, filter_);
    properties_.Put(attrProbePath, probePath_);
    properties_.Put(attrLogDirectory, logDirectory_);
    properties_.Put(attrPidDirectory, pidDirectory_);
    properties_.Put(attrWindowSize, number(windowSize_));
    properties_.Put(attrSampleRate, number(sampleRate_));
    properties_.Put(attrHostLifeTime, number(hostLifeTime_));
    properties_.Put(attrMinCacheSize, number(minCacheSize_));
    properties_.Put(attrLogFilter, logFilter_);
    properties_.Put(attrMaxVirtualMemory, number(maxVirtualMem_ / KB_PER_UNIT));
    properties_.Put(attrMaxPhysMemory, number(maxPhysMem_ / KB_PER_UNIT));
    properties_.Put(attrMultiProcessorFactor, number(multiProcFactor_));
    properties_.Put(attrAgentPort, number(agentPort_));
    properties_.Put(attrStateDirectory, stateDirectory_);
    properties_.Put(attrAllow, allow_);
    properties_.Put(attrMaxHosts, number(maxHosts_));
    return properties_.Save(propertiesPath(), "Written by hostgauge") == Success;
}
