// velmora-live-fuzz: arbitrary bytes from the network, in arbitrary read splits, through the live
// link's upgrade answer and frame parser into its event handling. Built only with
// -DVELMORA_FUZZ=ON and clang; run by hand, for instance:
//   build-fuzz/tools/fuzz/velmora-live-fuzz -max_total_time=600 corpus/
// The first input byte chooses: bit 0 puts a valid upgrade answer first, so that most runs reach
// the frames; the others seed the read sizes. A crash, a hang or a leak is a finding; anything the
// link reports is not.
#include "LiveTranscriber.h"

#include <QCoreApplication>

#include <cstddef>
#include <cstdint>

namespace {

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

LiveTranscriber& link()
{
    static int argc = 1;
    static char name[] = "velmora-live-fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    static LiveTranscriber live;
    return live;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    qInstallMessageHandler(quiet);
    if (size == 0)
        return 0;
    LiveTranscriber& live = link();
    live.stop();
    live.key = QStringLiteral("sk-fuzz");
    live.turnMode = 0;
    live.inbox.clear();
    live.fragments.clear();
    QByteArray bytes(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1));
    if (data[0] & 1)
        bytes.prepend("HTTP/1.1 101 Switching Protocols\r\n\r\n");
    std::uint32_t seed = data[0];
    for (qsizetype at = 0; at < bytes.size() && !live.key.isEmpty();) {
        seed = seed * 1103515245u + 12345u;
        const qsizetype piece = 1 + qsizetype((seed >> 16) % 64);
        live.receive(bytes.mid(at, piece));
        at += piece;
    }
    return 0;
}
