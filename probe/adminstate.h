// AdminState: whether the operator has taken this server out of rotation (drain) or down
// for work (maint). It keeps the state in a file so that it survives restarts, logs each
// change, and remembers when a drain or maintenance was lifted, for the agent's "ready".
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lib/numbers.h"
#include "lib/time.h"
#include "lib/unistring.h"

class AdminState {
public:
    enum class Mode { Ready, Drain, Maint };
    static constexpr const char* FILE_NAME = "/hostgauge.state";
    // How long after a drain or maintenance is lifted the agent still says "ready".
    static constexpr unsigned READY_ANNOUNCE_SECONDS = 60;

    // Reads the state file in `directory`: missing means ready, unreadable is logged as ready.
    explicit AdminState(const KyUniString& directory);
    AdminState(const AdminState&) = delete;
    AdminState& operator=(const AdminState&) = delete;

    Mode mode() const { return mode_; }
    // Out of rotation: load reports say the server is fully busy.
    bool outOfRotation() const { return mode_ != Mode::Ready; }
    // Changes the state, writes the file and logs; the state changes even when the file
    // cannot be written (that is logged and reported as Failure).
    KyStatus set(Mode mode, const KyTimeVal& now = KyTimeVal());
    // True during the minute after a drain or maintenance was lifted.
    bool announceReady(const KyTimeVal& now = KyTimeVal()) const;
    const std::string& path() const { return path_; }

    static std::string_view name(Mode mode);
    static std::optional<Mode> parse(std::string_view text);

private:
    void load();
    KyStatus save() const;

    std::string path_;
    Mode mode_ = Mode::Ready;
    std::optional<KyTimeVal> liftedAt_;
};

// The probe's one state, made at start-up.
extern AdminState* myAdminState;
