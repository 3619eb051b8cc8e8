// KyByteCircuit: a buffered, event-driven full-duplex byte stream over an input and an
// output KyFile. The read side collects exactly the bytes asked for with ReadMore and
// hands them over in ReadAvail; the write side queues messages (data, a descriptor to
// pass, or an orderly stop) and drains them whenever the output is writable.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "lib/bytebuf.h"
#include "lib/event.h"
#include "lib/eventloop.h"
#include "lib/file.h"
#include "lib/numbers.h"

class KyByteCircuit {
public:
    using cbdispatch = KyEvent::cbdispatch;

    class Message : public KyByteBuffer {
    public:
        enum Type { Data = 0, Descriptor = 1, Stop = 2 };

        Message() = default;
        Message(const KyByteBuffer& data, Type type = Data);
        // A descriptor message: the descriptor as 4 bytes, least significant first.
        static Message ForDescriptor(int fd, bool closeAfter);

        Type GetType() const { return type_; }
        void SetType(Type type) { type_ = type; }
        bool Flag() const { return flag_; }
        std::uint32_t Remaining() const { return remaining_; }
        void Consume(std::uint32_t count) { remaining_ -= count; }
        int DescriptorValue() const;

    private:
        Type type_ = Data;
        bool flag_ = false;
        std::uint32_t remaining_ = 0;
    };

    using SType = Message::Type;

    class Statistics {
    public:
        struct SMessage {
            SType type = Message::Data;
            std::uint32_t bytes = 0;
            bool flag = false;
        };
        void Update(const KyByteCircuit& circuit);
        const SMessage& Incoming() const { return incoming_; }
        const std::vector<SMessage>& Queued() const { return queued_; }

    private:
        SMessage incoming_;
        std::vector<SMessage> queued_;
    };

    explicit KyByteCircuit(KyEventLoop& loop);
    virtual ~KyByteCircuit();
    KyByteCircuit(const KyByteCircuit&) = delete;
    KyByteCircuit& operator=(const KyByteCircuit&) = delete;

    virtual void WriteError();
    virtual void ReadError();
    virtual void EndOfFile(bool inMiddle);
    virtual void ReadAvail(KyByteBuffer& incoming) = 0;
    // True when the derived class has taken the write readiness itself.
    virtual bool WriteAvail();
    virtual void FileDescriptorAvail(const KyFile::RecvFDInfo& info);
    virtual void WriteStopped();
    virtual void WriteMore(unsigned written);
    virtual KyIOResult Read(void* buffer, long length, long& count);

    KyEventLoop& EventLoop() const { return loop_; }

    unsigned WantRead();
    unsigned StopRead();
    void ReadMore(unsigned count);
    // Like ReadMore, but hands over whatever the next successful read brings, up to count
    // bytes: for a peer whose message length is unknown, without asking the kernel first.
    void ReadUpTo(unsigned count);
    KyByteBuffer TakeIncoming();
    void ReceiveFileDescriptor();

    void Write(const KyByteBuffer& data, bool now);
    void WantWrite();
    void StopWrite(bool abort);
    KyStatus SendFileDescriptor(int fd, bool closeAfter);

    void SetAbortOnEBADMSG(bool abort) { abortOnEBADMSG_ = abort ? 1 : 0; }
    bool AbortOnEBADMSG() const { return abortOnEBADMSG_ != 0; }
    const Statistics& GetStatistics();
    unsigned Wanted() const { return wanted_; }
    unsigned ReadInterest() const { return readInterest_; }
    bool WriteRegistered() const { return writeRegistered_ != False; }
    std::size_t QueueLength() const { return queue_.size(); }

    // The loop's entry points: read and write readiness (or a direct call).
    void readCB(KyCallback<cbdispatch>* callback, cbdispatch reason);
    void writeCB(KyCallback<cbdispatch>* callback, cbdispatch reason);

protected:
    KyFile* input_ = nullptr;
    KyFile* output_ = nullptr;

private:
    using Callback = KySimpleCallback<cbdispatch, KyByteCircuit>;

    bool ReceiveIntoIncoming();
    void DiscardUnexpectedDescriptor();
    // Writes the oldest message; false ends the walk (waiting or failed).
    bool WriteFront();
    void DropWriteRegistration();

    KyEventLoop& loop_;
    std::unique_ptr<Callback> readCallback_;
    std::unique_ptr<Callback> writeCallback_;
    unsigned readInterest_ = 0;
    int readFd_ = -1;  // the descriptor registered for reading, while readInterest_ > 0
    int writeFd_ = -1; // the descriptor registered for writing, while writeRegistered_
    KyStatus writeRegistered_ = False;
    unsigned char abortOnEBADMSG_ = 0;
    std::deque<Message> queue_;
    Message incoming_;
    unsigned wanted_ = 0;
    bool anyAmount_ = false; // set by ReadUpTo until the next hand-over
    Statistics statistics_;
};
