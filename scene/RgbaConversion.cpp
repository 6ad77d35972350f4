#include "RgbaConversion.h"

#include "Frame.h"

#include <QImage>
#include <QRgb>

#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define VELMORA_SSE2 1
#endif

namespace {

// From QPainter's premultiplied ARGB32 to the outputs' RGBA bytes. On a little-endian machine both
// are 32-bit words that differ by the order of red and blue, so an opaque pixel, which is what
// compose makes, only swaps two bytes; only the others need the division.
#if Q_BYTE_ORDER == Q_LITTLE_ENDIAN
constexpr bool packedSwap = true;
#else
constexpr bool packedSwap = false;
#endif

inline quint32 swapRedBlue(quint32 p)
{
    return (p & 0xff00ff00u) | ((p >> 16) & 0xffu) | ((p & 0xffu) << 16);
}

#ifdef VELMORA_SSE2
inline __m128i swapRedBlue(__m128i p)
{
    const __m128i redBlue = _mm_and_si128(p, _mm_set1_epi32(0x00ff00ff));
    return _mm_or_si128(_mm_and_si128(p, _mm_set1_epi32(int(0xff00ff00u))),
                        _mm_or_si128(_mm_srli_epi32(redBlue, 16), _mm_slli_epi32(redBlue, 16)));
}

inline bool allOpaque(__m128i p)
{
    const __m128i full = _mm_cmpeq_epi32(_mm_or_si128(p, _mm_set1_epi32(0x00ffffff)), _mm_set1_epi32(-1));
    return _mm_movemask_epi8(full) == 0xffff;
}
#endif

// Premultiplied ARGB32 (or opaque RGB32, whose alpha byte is forced) to RGBA bytes.
void unpremultiplyRow(const quint32* source, uchar* target, int count, bool forceOpaque)
{
    int x = 0;
#ifdef VELMORA_SSE2
    const __m128i alpha = _mm_set1_epi32(forceOpaque ? int(0xff000000u) : 0);
    for (; x + 4 <= count; x += 4) {
        const __m128i p = _mm_or_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(source + x)), alpha);
        if (allOpaque(p)) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(target + qsizetype(x) * 4), swapRedBlue(p));
            continue;
        }
        for (int k = x; k < x + 4; ++k) {
            const quint32 word = swapRedBlue(qUnpremultiply(source[k]));
            std::memcpy(target + qsizetype(k) * 4, &word, 4);
        }
    }
#endif
    for (; x < count; ++x) {
        const quint32 word = swapRedBlue(qUnpremultiply(forceOpaque ? source[x] | 0xff000000u : source[x]));
        std::memcpy(target + qsizetype(x) * 4, &word, 4);
    }
}

} // namespace

tavrin::Frame frameFromImage(const QImage& picture)
{
    tavrin::Frame frame;
    frameFromImage(picture, frame);
    return frame;
}

void frameFromImage(const QImage& picture, tavrin::Frame& frame)
{
    // A frame holds 1 to 8192 pixels a side.
    if (picture.isNull() || picture.width() > 8192 || picture.height() > 8192) {
        frame = tavrin::Frame();
        return;
    }
    frame.width = picture.width();
    frame.height = picture.height();
    const std::size_t rowBytes = std::size_t(frame.width) * 4;
    const QImage::Format format = picture.format();
    // Every byte is written below: a reused frame of the same size is not cleared first.
    frame.pixels.resize(rowBytes * std::size_t(frame.height));

    if (format == QImage::Format_RGBA8888 && std::size_t(picture.bytesPerLine()) == rowBytes) {
        std::memcpy(frame.pixels.data(), picture.constBits(), frame.pixels.size());
        return;
    }
    const bool direct = packedSwap && (format == QImage::Format_ARGB32_Premultiplied || format == QImage::Format_RGB32);
    const QImage rgba = direct || format == QImage::Format_RGBA8888 ? picture
                                                                     : picture.convertToFormat(QImage::Format_RGBA8888);
    for (int y = 0; y < frame.height; ++y) {
        uchar* target = frame.pixels.data() + rowBytes * std::size_t(y);
        if (direct)
            unpremultiplyRow(reinterpret_cast<const quint32*>(picture.constScanLine(y)), target, frame.width,
                             format == QImage::Format_RGB32);
        else
            std::memcpy(target, rgba.constScanLine(y), rowBytes);
    }
}
