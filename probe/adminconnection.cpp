// One admin command from read to close. The command ends at a line end or at the
// client's end of sending, whichever comes first.
#include "probe/adminconnection.h"

#include <algorithm>

#include "probe/adminsocket.h"

AdminConnection::AdminConnection(KyEventLoop& loop, int fd, AdminSocket* owner)
    : KyByteCircuit(loop), connection_(fd), owner_(owner) {
    input_ = &connection_;
    output_ = &connection_;
    WantRead();
}

AdminConnection::~AdminConnection() {
    while (StopRead() > 0) {
    }
    StopWrite(true);
    connection_.Close();
}

void AdminConnection::ReadAvail(KyByteBuffer& incoming) {
    if (incoming.Length() == 0) {
        ReadMore(1);
        return;
    }
    const KyByteBuffer taken = TakeIncoming();
    command_.append(taken.AsStringView());
    if (command_.find('\n') != std::string::npos || command_.size() > MAX_COMMAND) {
        respond();
    }
}

void AdminConnection::EndOfFile(bool) {
    if (answered_) {
        close();
    } else {
        respond();
    }
}

void AdminConnection::respond() {
    if (answered_) {
        return;
    }
    answered_ = true;
    while (StopRead() > 0) {
    }
    const std::string text = owner_->execute(command_.substr(0, command_.find('\n'))) + "\n";
    answer_ = KyByteBuffer(static_cast<std::uint32_t>(text.size()), text.data());
    Write(answer_, true);
    if (isOpen()) {
        StopWrite(false);
    }
}

void AdminConnection::ReadError() {
    close();
}

void AdminConnection::WriteError() {
    KyByteCircuit::WriteError();
    close();
}

void AdminConnection::WriteStopped() {
    close();
}

// A queued stop has closed the descriptor already by the time WriteStopped runs.
void AdminConnection::close() {
    if (released_) {
        return;
    }
    released_ = true;
    while (StopRead() > 0) {
    }
    connection_.Close();
    owner_->release(this);
}
