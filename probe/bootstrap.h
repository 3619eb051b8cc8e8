// Bootstrap: the probe's configuration. Loads hostspread.properties from the
// configuration directory, checks every setting and falls back to a built-in default
// (with a log message) for anything missing or bad, sets up logging as soon as the log
// directory and filter are known, and serves the settings to the rest of the probe.
#pragma once

#include <cstdint>

#include "lib/props.h"
#include "lib/unistring.h"

class Bootstrap {
public:
    static const KyUniString bootstrapFile;
    static const KyUniString attrPort;
    static const KyUniString attrFilter;
    static const KyUniString attrProbePath;
    static const KyUniString attrLogDirectory;
    static const KyUniString attrPidDirectory;
    static const KyUniString attrWindowSize;
    static const KyUniString attrSampleRate;
    static const KyUniString attrHostLifeTime;
    static const KyUniString attrMinCacheSize;
    static const KyUniString attrLogFilter;
    static const KyUniString attrMaxVirtualMemory;
    static const KyUniString attrMaxPhysMemory;
    static const KyUniString attrMultiProcessorFactor;
    static const KyUniString attrAgentPort;
    static const KyUniString attrStateDirectory;
    static const KyUniString attrAllow;
    static const KyUniString attrMaxHosts;
    static const KyUniString DEFAULT_ALLOW;
    static constexpr unsigned DEFAULT_MAXHOSTS = 10000;
    static const KyUniString DEFAULT_FILTER;
    static const KyUniString DEFAULT_LOGDIR;
    static const KyUniString DEFAULT_LOGFILTER;
    // The load tool built beside the daemon: "hostgauge-vmstat -S" in the directory of the
    // running executable, found once through /proc/self/exe.
    static const KyUniString& defaultProbePath();
    static constexpr unsigned MIN_SAMPLERATE = 5;
    static constexpr unsigned MIN_WINDOWSIZE = 1;
    static constexpr unsigned MIN_SAMPLERATExWINDOWSIZE = 15;

    // Loads everything; an empty directory loads nothing and sets up no logging.
    Bootstrap(KyUniString directory, unsigned processorCount);
    Bootstrap(Bootstrap const&) = delete;
    Bootstrap& operator=(Bootstrap const&) = delete;

    unsigned getPort() const { return port_; }
    KyUniString const& getFilter() const { return filter_; }
    KyUniString const& getProbePath() const { return probePath_; }
    KyUniString const& getPidDirectory() const { return pidDirectory_; }
    unsigned getWindowSize() const { return windowSize_; }
    unsigned getSampleRate() const { return sampleRate_; }
    unsigned getMinCacheSize() const { return minCacheSize_; }
    unsigned getHostLifeTime() const { return hostLifeTime_; }
    unsigned getNumProcessors() const { return numProcessors_; }
    unsigned getMaxVirtualMem() const { return maxVirtualMem_; }
    unsigned getMaxPhysMem() const { return maxPhysMem_; }
    unsigned getMultiProcFactor() const { return multiProcFactor_; }
    // 0: no agent port.
    unsigned getAgentPort() const { return agentPort_; }
    KyUniString const& getStateDirectory() const { return stateDirectory_; }
    KyUniString const& getAllow() const { return allow_; }
    unsigned getMaxHosts() const { return maxHosts_; }

    // One key with fallback: absent or (for numbers) zero gives the default, logged.
    unsigned GetUint(KyUniString const& key, unsigned defaultValue);
    KyUniString GetString(KyUniString const& key, KyUniString const& defaultValue);

    // Raises a too-small rate or window, silently.
    static void checkSampleRateAndWindowSize(unsigned& sampleRate, unsigned& windowSize);
    bool setSampleRateAndWindowSize(unsigned sampleRate, unsigned windowSize);
    bool setPort(unsigned port);
    // Writes every setting back to the file that was loaded.
    bool setConfig();

private:
    void load();
    void useDefaults();
    void readLogSettings();
    void readProbePath();
    void readPidDirectory();
    // The agent port, the state directory, the allow list and the subscription cap.
    void readAccessSettings();
    KyUniString propertiesPath() const;

    KyUniString directory_;
    std::uint32_t port_ = 3579;
    KyUniString filter_;
    KyUniString probePath_;
    KyUniString logDirectory_;
    KyUniString pidDirectory_;
    std::uint32_t windowSize_ = 120;
    std::uint32_t sampleRate_ = 30;
    std::uint32_t minCacheSize_ = 10;
    std::uint32_t hostLifeTime_ = 86400;
    std::uint32_t numProcessors_ = 1;
    std::uint32_t maxVirtualMem_ = 768 * 1024;
    std::uint32_t maxPhysMem_ = 256 * 1024;
    std::uint32_t multiProcFactor_ = 80;
    std::uint32_t agentPort_ = 0;
    KyUniString stateDirectory_;
    KyUniString allow_;
    std::uint32_t maxHosts_ = DEFAULT_MAXHOSTS;
    KyProperties properties_;
    KyUniString logFilter_;
};

// The probe's configuration, created by main and destroyed by processExit.
extern Bootstrap* myBootstrap;
