// Network-side costs: parsing one CREATE control request, and pushing 100 MB through a
// byte circuit over a socket pair in 200-byte messages beside a plain non-blocking
// write/read loop over the same kind of pair. Compare the two bytes_per_second figures.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "lib/bytecircuit.h"
#include "lib/eventloop.h"
#include "lib/process.h"
#include "lib/unistring.h"
#include "probe/tier3lbstrans.h"

namespace {

constexpr std::uint64_t kTotal = 100ull * 1024 * 1024;
constexpr std::uint32_t kMessage = 200;
constexpr unsigned kReadChunk = 65536; // divides kTotal, so every byte is handed over

void ParseCreateRequest(benchmark::State& state) {
    KyUniString request(
        "<cvnlbreq command=CREATE><version>1.0</version><host>client7</host><port>4711</port>"
        "<samplerate>5000</samplerate><windowsize>3</windowsize><id>7</id>"
        "<replyfreq>30000</replyfreq><percentchange>10</percentchange><stat>cpu</stat>"
        "<stat>bogo</stat></cvnlbreq>");
    for (auto _ : state) {
        Tier3_LbsTransmission parsed(request);
        benchmark::DoNotOptimize(parsed.getCommand());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ParseCreateRequest);

struct Pair {
    Pair() {
        socketpair(AF_UNIX, SOCK_STREAM, 0, fd);
        for (int f : fd) {
            KyFile file(f);
            file.SetBlocking(false);
        }
    }
    ~Pair() {
        for (int f : fd)
            if (f >= 0)
                close(f);
    }
    int fd[2] = {-1, -1};
};

// Keeps the queue topped up: writes messages while each one leaves at once, and resumes
// when the circuit reports the queue drained.
class Sender : public KyByteCircuit {
public:
    Sender(KyEventLoop& loop, int fd) : KyByteCircuit(loop), file_(fd) {
        input_ = &file_;
        output_ = &file_;
        message_ = KyByteBuffer(std::string(kMessage, 'm'));
    }
    void ReadAvail(KyByteBuffer&) override {}
    void WriteMore(unsigned) override {
        if (!pumping_ && QueueLength() == 0)
            Pump();
    }
    void Pump() {
        pumping_ = true;
        while (sent_ < kTotal && QueueLength() == 0) {
            sent_ += kMessage;
            Write(message_, true);
        }
        pumping_ = false;
    }

private:
    KyFile file_;
    KyByteBuffer message_;
    std::uint64_t sent_ = 0;
    bool pumping_ = false;
};

class Receiver : public KyByteCircuit {
public:
    Receiver(KyEventLoop& loop, int fd) : KyByteCircuit(loop), file_(fd) {
        input_ = &file_;
        output_ = &file_;
    }
    void ReadAvail(KyByteBuffer& incoming) override {
        received_ += incoming.Length();
        TakeIncoming();
        if (received_ >= kTotal)
            EventLoop().ExitEventLoop(0);
        else
            ReadMore(kReadChunk);
    }

private:
    KyFile file_;
    std::uint64_t received_ = 0;
};

void CircuitOverSocketPair(benchmark::State& state) {
    KyUnixProcess process;
    the_current_process = &process;
    for (auto _ : state) {
        Pair pair;
        KyEventLoop loop(&process);
        Sender sender(loop, pair.fd[0]);
        Receiver receiver(loop, pair.fd[1]);
        receiver.WantRead();
        sender.Pump();
        loop.EnterEventLoop();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
}
BENCHMARK(CircuitOverSocketPair)->Unit(benchmark::kMillisecond)->Iterations(3);

void PlainLoopOverSocketPair(benchmark::State& state) {
    const std::string message(kMessage, 'm');
    std::string buffer(kReadChunk, '\0');
    for (auto _ : state) {
        Pair pair;
        std::uint64_t sent = 0, received = 0;
        while (received < kTotal) {
            ssize_t put;
            // Each message is written whole before the next, as the circuit does.
            while (sent < kTotal && (put = write(pair.fd[0], message.data() + sent % kMessage,
                                                 kMessage - sent % kMessage)) > 0)
                sent += static_cast<std::uint64_t>(put);
            ssize_t got;
            while ((got = read(pair.fd[1], buffer.data(), kReadChunk)) > 0)
                received += static_cast<std::uint64_t>(got);
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kTotal));
}
BENCHMARK(PlainLoopOverSocketPair)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
