// The byte circuit's two callbacks and its queue. Reads land straight in the incoming
// buffer's reserved space; writes leave in queue order, a stop message closing the
// output only after everything queued before it has gone.
#include "lib/bytecircuit.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

KyByteCircuit::Message::Message(const KyByteBuffer& data, Type type)
    : KyByteBuffer(data), type_(type), remaining_(data.Length()) {}

KyByteCircuit::Message KyByteCircuit::Message::ForDescriptor(int fd, bool closeAfter) {
    const auto value = static_cast<std::uint32_t>(fd);
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
        static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
    Message message(KyByteBuffer(sizeof bytes, bytes), Descriptor);
    message.flag_ = closeAfter;
    return message;
}

int KyByteCircuit::Message::DescriptorValue() const {
    if (Length() < 4)
        return -1;
    const unsigned char* b = KyByteBuffer::Data();
    return static_cast<int>(std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 |
                            std::uint32_t{b[2]} << 16 | std::uint32_t{b[3]} << 24);
}

void KyByteCircuit::Statistics::Update(const KyByteCircuit& circuit) {
    incoming_ = {circuit.incoming_.GetType(), circuit.incoming_.Length(), circuit.incoming_.Flag()};
    queued_.clear();
    for (const Message& message : circuit.queue_)
        queued_.push_back({message.GetType(), message.Remaining(), message.Flag()});
}

KyByteCircuit::KyByteCircuit(KyEventLoop& loop)
    : loop_(loop), readCallback_(std::make_unique<Callback>(this, &KyByteCircuit::readCB)),
      writeCallback_(std::make_unique<Callback>(this, &KyByteCircuit::writeCB)) {}

KyByteCircuit::~KyByteCircuit() {
    // The derived class's files may already be gone: use the descriptors as registered.
    if (readInterest_ > 0 && readFd_ >= 0)
        loop_.RemoveFileEvent(readFd_, true, false, readCallback_.get());
    if (writeRegistered_ && writeFd_ >= 0)
        loop_.RemoveFileEvent(writeFd_, false, true, writeCallback_.get());
}

void KyByteCircuit::WriteError() {
    StopWrite(true);
}

void KyByteCircuit::ReadError() {
    while (StopRead() > 0) {
    }
}

void KyByteCircuit::EndOfFile(bool) {
    while (StopRead() > 0) {
    }
}

bool KyByteCircuit::WriteAvail() {
    return false;
}

void KyByteCircuit::FileDescriptorAvail(const KyFile::RecvFDInfo&) {}

void KyByteCircuit::WriteStopped() {}

void KyByteCircuit::WriteMore(unsigned) {}

KyIOResult KyByteCircuit::Read(void* buffer, long length, long& count) {
    return input_->Read(buffer, length, count);
}

const KyByteCircuit::Statistics& KyByteCircuit::GetStatistics() {
    statistics_.Update(*this);
    return statistics_;
}

unsigned KyByteCircuit::WantRead() {
    if (++readInterest_ == 1) {
        readFd_ = input_->FileDescriptor();
        loop_.AddFileEvent(readFd_, true, false, readCallback_.get());
    }
    return readInterest_;
}

unsigned KyByteCircuit::StopRead() {
    if (readInterest_ == 0)
        return 0;
    if (--readInterest_ == 0)
        loop_.RemoveFileEvent(readFd_, true, false, readCallback_.get());
    return readInterest_;
}

void KyByteCircuit::ReadMore(unsigned count) {
    incoming_.PreAllocate(incoming_.Length() + count);
    wanted_ += count;
}

void KyByteCircuit::ReadUpTo(unsigned count) {
    ReadMore(count);
    anyAmount_ = true;
}

KyByteBuffer KyByteCircuit::TakeIncoming() {
    KyByteBuffer taken(incoming_);
    wanted_ = 0;
    anyAmount_ = false;
    // Starting a fresh buffer is truncation to 0 without copying the shared bytes first.
    static_cast<KyByteBuffer&>(incoming_) = KyByteBuffer();
    return taken;
}

void KyByteCircuit::ReceiveFileDescriptor() {
    incoming_.SetType(Message::Descriptor);
}

void KyByteCircuit::Write(const KyByteBuffer& data, bool now) {
    if (data.Length() == 0)
        return;
    queue_.emplace_back(data);
    if (now)
        writeCB(writeCallback_.get(), KyEvent::Fired);
    else
        WantWrite();
}

void KyByteCircuit::WantWrite() {
    if (writeRegistered_)
        return;
    writeFd_ = output_->FileDescriptor();
    if (loop_.AddFileEvent(writeFd_, false, true, writeCallback_.get()))
        writeRegistered_ = True;
}

void KyByteCircuit::DropWriteRegistration() {
    if (!writeRegistered_)
        return;
    loop_.RemoveFileEvent(writeFd_, false, true, writeCallback_.get());
    writeRegistered_ = False;
}

void KyByteCircuit::StopWrite(bool abort) {
    if (abort) {
        queue_.clear();
        DropWriteRegistration();
        return;
    }
    queue_.emplace_back(KyByteBuffer(), Message::Stop);
    if (queue_.size() == 1)
        writeCB(writeCallback_.get(), KyEvent::Fired);
}

KyStatus KyByteCircuit::SendFileDescriptor(int fd, bool closeAfter) {
    queue_.push_back(Message::ForDescriptor(fd, closeAfter));
    writeCB(writeCallback_.get(), KyEvent::Fired);
    return Success;
}

// Step 1 of the read callback: false when the callback ends here.
bool KyByteCircuit::ReceiveIntoIncoming() {
    KyFile::RecvFDInfo info;
    switch (input_->RecvFD(info)) {
    case ioComplete:
        incoming_.SetType(Message::Data);
        FileDescriptorAvail(info);
        return false;
    case ioEndOfFile:
        EndOfFile(false);
        return false;
    case ioPartial:
        return false;
    case ioError:
        break;
    }
    ReadError();
    if (input_->ErrorErrno() != EBADMSG)
        return false;
    // Ordinary data came where a descriptor was expected: read it as data.
    incoming_.SetType(Message::Data);
    return true;
}

void KyByteCircuit::DiscardUnexpectedDescriptor() {
    KyFile::RecvFDInfo info;
    switch (input_->RecvFD(info)) {
    case ioError:
        abortOnEBADMSG_ = 1;
        ReadError();
        abortOnEBADMSG_ = 0;
        break;
    case ioComplete:
        ::close(info.fd);
        break;
    case ioEndOfFile:
        EndOfFile(wanted_ != 0);
        break;
    case ioPartial:
        break;
    }
}

void KyByteCircuit::readCB(KyCallback<cbdispatch>*, cbdispatch) {
    for (;;) {
        if (incoming_.GetType() == Message::Descriptor && !ReceiveIntoIncoming())
            return;
        if (wanted_ == 0) {
            ReadAvail(incoming_);
            if (wanted_ == 0)
                return;
        }
        const std::uint32_t length = incoming_.Length();
        // ReadMore reserved the space, but a copy the user kept may have unshared it since.
        incoming_.PreAllocate(length + wanted_);
        long count = 0;
        switch (Read(incoming_.KyByteBuffer::Data() + length, wanted_, count)) {
        case ioPartial:
            incoming_.Extend(length + static_cast<std::uint32_t>(count));
            wanted_ -= static_cast<unsigned>(count);
            if (count == 0 || !anyAmount_)
                return;
            wanted_ = 0;
            anyAmount_ = false;
            continue;
        case ioComplete:
            incoming_.Extend(length + wanted_);
            wanted_ = 0;
            anyAmount_ = false;
            continue;
        case ioEndOfFile:
            EndOfFile(wanted_ != 0);
            return;
        case ioError:
            ReadError();
            if (input_->ErrorErrno() == EBADMSG)
                DiscardUnexpectedDescriptor();
            return;
        }
    }
}

bool KyByteCircuit::WriteFront() {
    Message& message = queue_.front();
    long count = 0;
    KyIOResult result = ioComplete;
    switch (message.GetType()) {
    case Message::Data:
        // Read through the const view: the caller may still share the bytes.
        result = output_->Write(std::as_const(message).KyByteBuffer::Data() +
                                    (message.Length() - message.Remaining()),
                                message.Remaining(), count);
        break;
    case Message::Descriptor:
        result = output_->SendFD(message.DescriptorValue());
        break;
    case Message::Stop:
        DropWriteRegistration();
        output_->Close();
        WriteStopped();
        break;
    }
    switch (result) {
    case ioPartial:
        if (message.GetType() == Message::Data) {
            message.Consume(static_cast<std::uint32_t>(count));
            WriteMore(static_cast<unsigned>(count));
        }
        WantWrite();
        return false;
    case ioComplete: {
        const Message::Type type = message.GetType();
        const unsigned written = message.Remaining();
        if (type == Message::Descriptor && message.Flag())
            ::close(message.DescriptorValue());
        queue_.pop_front();
        if (type == Message::Data)
            WriteMore(written);
        return true;
    }
    case ioEndOfFile:
    case ioError:
        break;
    }
    WriteError();
    return false;
}

void KyByteCircuit::writeCB(KyCallback<cbdispatch>*, cbdispatch) {
    if (WriteAvail())
        return;
    if (queue_.empty()) {
        DropWriteRegistration();
        return;
    }
    while (!queue_.empty()) {
        if (!WriteFront())
            return;
    }
    DropWriteRegistration();
}
