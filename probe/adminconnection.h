// AdminConnection: one client of the admin socket. It collects one command line, has the
// AdminSocket carry it out, writes the one-line answer and closes; its owner deletes it
// on a later loop pass.
#pragma once

#include <string>

#include "lib/bytebuf.h"
#include "lib/bytecircuit.h"
#include "lib/socket.h"
#include "lib/time.h"

class AdminSocket;

class AdminConnection : public KyByteCircuit {
public:
    // Longer input than this is not a command; the connection gets an error answer.
    static constexpr unsigned MAX_COMMAND = 64;

    AdminConnection(KyEventLoop& loop, int fd, AdminSocket* owner);
    ~AdminConnection() override;
    AdminConnection(const AdminConnection&) = delete;
    AdminConnection& operator=(const AdminConnection&) = delete;

    void ReadAvail(KyByteBuffer& incoming) override;
    void EndOfFile(bool inMiddle) override;
    void ReadError() override;
    void WriteError() override;
    void WriteStopped() override;

    // Closes without an answer (the client stayed silent too long).
    void close();
    bool isOpen() const { return connection_.FileDescriptor() >= 0; }
    const KyTimeVal& acceptedAt() const { return accepted_; }

private:
    void respond();

    KySocket connection_;
    AdminSocket* owner_;
    KyTimeVal accepted_;
    std::string command_;
    KyByteBuffer answer_;
    bool answered_ = false;
    bool released_ = false;
};
