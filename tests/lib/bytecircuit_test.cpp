// Byte circuits over real socket pairs driven by the real event loop: partial writes
// that stay queued, orderly stop after queued data, aborts, end of file inside a read,
// descriptor passing, and peers that go away mid-flight.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "lib/bytecircuit.h"
#include "lib/eventloop.h"
#include "lib/process.h"
#include "tests/lib/loopcall.h"

namespace {

// Records every notice; by default reads whatever arrives into `received`.
class Circuit : public KyByteCircuit {
public:
    Circuit(KyEventLoop& loop, int fd) : KyByteCircuit(loop), file(fd) {
        file.SetBlocking(false);
        input_ = &file;
        output_ = &file;
    }
    void ReadAvail(KyByteBuffer& incoming) override {
        if (incoming.Length() > 0 && !keep) {
            taken.push_back(TakeIncoming());
            received += std::string(taken.back().AsStringView());
        }
        onData();
        anyAmount ? ReadUpTo(chunk) : ReadMore(chunk);
    }
    void EndOfFile(bool inMiddle) override {
        endOfFile.push_back(inMiddle);
        KyByteCircuit::EndOfFile(inMiddle);
        onEnd();
    }
    void WriteError() override {
        ++writeErrors;
        KyByteCircuit::WriteError();
    }
    void WriteMore(unsigned written) override { writeCounts.push_back(written); }
    void WriteStopped() override { ++stopped; }
    void FileDescriptorAvail(const KyFile::RecvFDInfo& info) override {
        descriptors.push_back(info.fd);
    }

    KyFile file;
    unsigned chunk = 4096;
    bool anyAmount = false;
    bool keep = false; // leaves what arrived in place and asks for more
    std::string received;
    std::vector<KyByteBuffer> taken;
    std::vector<bool> endOfFile;
    std::vector<unsigned> writeCounts;
    std::vector<int> descriptors;
    int stopped = 0;
    int writeErrors = 0;
    std::function<void()> onData = [] {};
    std::function<void()> onEnd = [] {};
};

class ByteCircuitTest : public ::testing::Test {
protected:
    void SetUp() override {
        the_current_process = &process;
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
    }
    void TearDown() override {
        for (int f : fd)
            if (f >= 0)
                close(f);
    }

    KyUnixProcess process;
    KyEventLoop loop{&process};
    int fd[2] = {-1, -1};
};

TEST_F(ByteCircuitTest, PartialWriteStaysQueuedAndWriteMoreHearsEveryCountUntilThePeerGoes) {
    int small = 4096;
    setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    Circuit writer(loop, fd[0]);
    Circuit reader(loop, fd[1]);
    std::string payload(1 << 20, '\0');
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<char>(i * 7 + i / 251);

    writer.Write(KyByteBuffer(std::string_view(payload)), true);
    ASSERT_EQ(writer.writeCounts.size(), 1u);
    EXPECT_LT(writer.writeCounts[0], payload.size());
    EXPECT_EQ(writer.QueueLength(), 1u);
    EXPECT_TRUE(writer.WriteRegistered());

    reader.WantRead();
    EXPECT_TRUE(RunUntil(loop, [&] { return reader.received.size() == payload.size(); }));
    EXPECT_TRUE(reader.received == payload);
    const std::vector<unsigned>& counts = writer.writeCounts;
    EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), 0u), payload.size());
    EXPECT_EQ(std::count(counts.begin(), counts.end(), 0u), 0);
    EXPECT_EQ(writer.QueueLength(), 0u);
    EXPECT_FALSE(writer.WriteRegistered());

    // If the peer goes while a write is queued, the write side is aborted.
    std::signal(SIGPIPE, SIG_IGN);
    writer.Write(KyByteBuffer(std::string_view(payload)), true);
    ASSERT_EQ(writer.QueueLength(), 1u);
    EXPECT_EQ(reader.StopRead(), 0u);
    close(fd[1]);
    fd[1] = -1;
    EXPECT_EQ(RunGuarded(loop, KyTimeVal(0, 200000)), 99);
    EXPECT_EQ(writer.writeErrors, 1);
    EXPECT_EQ(writer.QueueLength(), 0u);
    EXPECT_EQ(loop.PollCount(), 0u);
}

// The reader asks for more than comes: its end of file arrives inside the read, with what
// came still waiting to be taken.
TEST_F(ByteCircuitTest, StopAfterTwoWritesDeliversBothThenClosesOnceWhereAnAbortDiscards) {
    Circuit writer(loop, fd[0]);
    Circuit reader(loop, fd[1]);
    writer.Write(KyByteBuffer(std::string_view("first,")), false);
    writer.Write(KyByteBuffer(std::string_view("second")), false);
    writer.StopWrite(false);
    EXPECT_EQ(writer.QueueLength(), 3u);
    reader.chunk = 0;
    reader.onData = [&] {
        if (reader.Wanted() == 0 && reader.received.empty())
            reader.ReadMore(20);
    };
    reader.onEnd = [&] { loop.ExitEventLoop(0); };
    reader.WantRead();
    EXPECT_EQ(RunGuarded(loop), 0);
    fd[0] = -1; // closed by the stop message
    EXPECT_EQ(writer.stopped, 1);
    EXPECT_EQ(writer.file.FileDescriptor(), -1);
    EXPECT_EQ(writer.writeCounts, (std::vector<unsigned>{6, 6}));
    EXPECT_EQ(reader.endOfFile, std::vector<bool>{true});
    EXPECT_EQ(reader.Wanted(), 8u) << "twelve of the twenty asked for came";
    EXPECT_EQ(std::string(reader.TakeIncoming().AsStringView()), "first,second");
    EXPECT_EQ(loop.PollCount(), 0u);

    // An abort instead discards what is queued, unwritten, and leaves the loop.
    reader.Write(KyByteBuffer(std::string_view("never")), false);
    EXPECT_TRUE(reader.WriteRegistered());
    reader.StopWrite(true);
    EXPECT_EQ(reader.QueueLength(), 0u);
    EXPECT_EQ(loop.PollCount(), 0u);
}

TEST_F(ByteCircuitTest, ReadUpToHandsOverWhatEachReadBringsWhereReadMoreWaitsForAll) {
    Circuit any(loop, fd[1]);
    any.chunk = 8;
    any.anyAmount = true;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    Circuit exact(loop, pair[1]);
    exact.chunk = 8;
    exact.keep = true; // after a whole first chunk, three more bytes are still not enough
    any.onData = [&] {
        if (any.received == "abc") {
            ASSERT_EQ(write(fd[0], "defghijklm", 10), 10); // more than one chunk
        }
        if (any.received.size() == 13) {
            // From here on it asks for exactly eight again: two bytes are not enough.
            any.anyAmount = false;
            ASSERT_EQ(write(fd[0], "no", 2), 2);
        }
    };
    ASSERT_EQ(write(fd[0], "abc", 3), 3);
    ASSERT_EQ(write(pair[0], "12345678abc", 11), 11);
    any.WantRead();
    exact.WantRead();
    // Time for the reads of both to come and go.
    EXPECT_EQ(RunGuarded(loop, KyTimeVal(0, 100000)), 99);
    std::vector<std::string> pieces;
    for (const KyByteBuffer& piece : any.taken)
        pieces.emplace_back(piece.AsStringView());
    EXPECT_EQ(pieces, (std::vector<std::string>{"abc", "defghijk", "lm"}));
    EXPECT_EQ(any.Wanted(), 6u);
    EXPECT_TRUE(exact.taken.empty()) << "three of eight bytes are not handed over";
    EXPECT_EQ(exact.Wanted(), 5u);
    close(pair[0]);
}

TEST_F(ByteCircuitTest, ADescriptorPassesAndTheDataAfterItFollows) {
    Circuit a(loop, fd[0]);
    Circuit b(loop, fd[1]);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);

    // Sent with "close after": the sender's copy goes once the descriptor is on its way.
    EXPECT_TRUE(a.SendFileDescriptor(ends[1], true));
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1);
    a.Write(KyByteBuffer(std::string_view("after")), true);
    EXPECT_EQ(a.QueueLength(), 0u);
    b.chunk = 5;
    b.ReceiveFileDescriptor();
    b.WantRead();
    EXPECT_TRUE(RunUntil(loop, [&] { return b.received == "after"; }));
    ASSERT_EQ(b.descriptors.size(), 1u);
    EXPECT_NE(fcntl(b.descriptors[0], F_GETFD), -1);
    close(ends[0]);
    close(b.descriptors[0]);
}

} // namespace
