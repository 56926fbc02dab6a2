#include "gl/imageend.h"

#include <QIODevice>
#include <QString>
#include <QVarLengthArray>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace Brevane::Kvo {

namespace {

/// Reads a file forwards, a block at a time.
class ByteReader
{
public:
    explicit ByteReader(QIODevice &file) : _file(file) {}

    /// -1 at the end.
    int next()
    {
        if (_at == _size && !fill())
            return -1;
        return quint8(_block[std::size_t(_at++)]);
    }
    /// Big endian; -1 at the end.
    int next16()
    {
        const int high = next();
        const int low = next();
        return high < 0 || low < 0 ? -1 : high << 8 | low;
    }
    bool skip(qint64 count)
    {
        const qint64 here = std::min<qint64>(count, _size - _at);
        _at += here;
        return count == here || (_file.skip(count - here) == count - here);
    }
    /// Leaves the reader behind the next byte of that value.
    bool skipBehind(char value)
    {
        while (_at < _size || fill()) {
            const auto *found =
                static_cast<const char *>(std::memchr(_block.get() + _at, value, std::size_t(_size - _at)));
            if (found) {
                _at = found - _block.get() + 1;
                return true;
            }
            _at = _size;
        }
        return false;
    }

private:
    bool fill()
    {
        _at = 0;
        _size = std::max<qint64>(0, _file.read(_block.get(), kBlock));
        return _size > 0;
    }

    QIODevice &_file;
    static constexpr qint64 kBlock = 1 << 16;
    std::unique_ptr<char[]> _block = std::make_unique_for_overwrite<char[]>(kBlock);
    qint64 _at = 0;
    qint64 _size = 0;
};

// Markers of JPEG.
enum Marker {
    kBaseline = 0xc0,
    kExtended = 0xc1,
    kHuffmanTables = 0xc4,
    kFirstRestart = 0xd0,
    kStart = 0xd8,
    kEnd = 0xd9,
    kScan = 0xda,
    kRestartInterval = 0xdd,
    kTemporary = 0x01,
};

bool isRestart(int marker)
{
    return marker >= kFirstRestart && marker < kStart;
}

bool standsAlone(int marker)
{
    return isRestart(marker) || marker == kStart || marker == kTemporary;
}

/// The codes of a Huffman table, by length.
struct HuffmanTable
{
    std::array<int, 17> counts{};
    std::vector<quint8> values;
};

struct Component
{
    int id = 0;
    int across = 1; ///< Blocks of a unit of the scan.
    int down = 1;
    int dcTable = 0;
    int acTable = 0;
};

/// Follows a JPEG file through its segments, and the data of a sequential one through its codes.
class JpegFile
{
public:
    explicit JpegFile(QIODevice &file) : _bytes(file) {}

    /// Whether there is an end mark, or nothing is missing but that.
    bool isWhole()
    {
        if (_bytes.next16() != (0xff00 | kStart))
            return true; // for the decoder to refuse
        for (;;) {
            const int marker = nextMarker();
            if (marker < 0)
                return false;
            if (marker == kEnd)
                return true;
            if (standsAlone(marker))
                continue;
            const int length = _bytes.next16();
            if (length < 2)
                return length >= 0;
            if (!readSegment(marker, length - 2))
                return false;
            if (marker == kScan && _isSequential && _components.size() == _inScan.size())
                return walkScan();
        }
    }

private:
    using Segment = QVarLengthArray<quint8, 512>;

    int nextMarker()
    {
        int marker = 0;
        while (marker == 0) { // stuffed into data
            if (!_bytes.skipBehind('\xff'))
                return -1;
            do {
                marker = _bytes.next();
            } while (marker == 0xff);
            if (isRestart(marker))
                marker = 0;
        }
        return marker;
    }

    bool readSegment(int marker, int length)
    {
        if (marker != kBaseline && marker != kExtended && marker != kHuffmanTables && marker != kScan
            && marker != kRestartInterval)
            return _bytes.skip(length);
        Segment data(length);
        for (quint8 &byte : data) {
            const int value = _bytes.next();
            if (value < 0)
                return false;
            byte = quint8(value);
        }
        switch (marker) {
        case kBaseline:
        case kExtended: readFrame(data); break;
        case kHuffmanTables: readTables(data); break;
        case kScan: readScan(data); break;
        default: _restartInterval = length >= 2 ? data[0] << 8 | data[1] : 0; break;
        }
        return true;
    }

    void readFrame(const Segment &data)
    {
        if (data.size() < 6 || data.size() < 6 + 3 * data[5])
            return;
        _isSequential = true;
        _height = data[1] << 8 | data[2];
        _width = data[3] << 8 | data[4];
        for (int i = 0; i < data[5]; ++i) {
            const quint8 *entry = &data[6 + 3 * i];
            _components.push_back({entry[0], std::max(1, entry[1] >> 4), std::max(1, entry[1] & 15), 0, 0});
        }
    }

    void readTables(const Segment &data)
    {
        for (qsizetype at = 0; at + 17 <= data.size();) {
            HuffmanTable &table = _tables[std::size_t(data[at] >> 4 & 1)][std::size_t(data[at] & 3)];
            table = {};
            qsizetype count = 0;
            for (int length = 1; length <= 16; ++length)
                count += table.counts[std::size_t(length)] = data[at + length];
            at += 17;
            count = std::min(count, data.size() - at);
            table.values.assign(data.begin() + at, data.begin() + at + count);
            at += count;
        }
    }

    void readScan(const Segment &data)
    {
        _inScan.clear();
        for (qsizetype at = 1; at + 1 < data.size() && _inScan.size() < data[0]; at += 2) {
            for (Component component : _components) {
                if (component.id != data[at])
                    continue;
                component.dcTable = data[at + 1] >> 4 & 3;
                component.acTable = data[at + 1] & 3;
                _inScan.push_back(component);
            }
        }
    }

    // The only scan of a sequential image, or a damaged one, of which the decoder makes what it can.
    bool walkScan()
    {
        int widest = 1, tallest = 1;
        for (const Component &c : _components) {
            widest = std::max(widest, c.across);
            tallest = std::max(tallest, c.down);
        }
        if (_inScan.size() == 1) {
            _inScan[0].across = _inScan[0].down = 1;
            widest = tallest = 1;
        }
        const auto blocks = [](int size, int unit) { return (size + 8 * unit - 1) / (8 * unit); };
        const qint64 units = qint64(blocks(_width, widest)) * blocks(_height, tallest);
        for (qint64 unit = 0; unit < units; ++unit) {
            if (_restartInterval > 0 && unit > 0 && unit % _restartInterval == 0)
                toRestart();
            for (const Component &c : _inScan) {
                for (int block = 0; block < c.across * c.down; ++block) {
                    if (!walkBlock(c))
                        return !_isAtEnd; // damaged, if not cut off
                }
            }
        }
        return true;
    }

    bool walkBlock(const Component &c)
    {
        if (!skipBits(symbol(_tables[0][std::size_t(c.dcTable)])))
            return false;
        for (int coefficient = 1; coefficient < 64; ++coefficient) {
            const int code = symbol(_tables[1][std::size_t(c.acTable)]);
            if (code < 0)
                return false;
            const int size = code & 15;
            if (size == 0 && code >> 4 != 15)
                break; // the rest is 0
            coefficient += code >> 4;
            if (!skipBits(size))
                return false;
        }
        return true;
    }

    // -1 at the end of the data.
    int symbol(const HuffmanTable &table)
    {
        int code = 0, first = 0, index = 0;
        for (std::size_t length = 1; length <= 16; ++length) {
            const int bit = nextBit();
            if (bit < 0)
                return -1;
            code |= bit;
            const int count = table.counts[length];
            if (code - first < count && std::size_t(index + code - first) < table.values.size())
                return table.values[std::size_t(index + code - first)];
            index += count;
            first = (first + count) << 1;
            code <<= 1;
        }
        return -1;
    }

    bool skipBits(int count)
    {
        if (count < 0)
            return false;
        while (count-- > 0) {
            if (nextBit() < 0)
                return false;
        }
        return true;
    }

    int nextBit()
    {
        if (_bits == 0) {
            if (_hitMarker)
                return -1;
            _byte = _bytes.next();
            if (_byte == 0xff)
                _hitMarker = behindFill();
            _isAtEnd = _isAtEnd || _byte < 0;
            if (_hitMarker || _isAtEnd)
                return -1;
            _bits = 8;
        }
        return _byte >> --_bits & 1;
    }

    void toRestart()
    {
        _bits = 0;
        if (_hitMarker == 0 && _bytes.next() == 0xff)
            _hitMarker = behindFill();
        if (isRestart(_hitMarker))
            _hitMarker = 0;
    }

    // The marker behind a byte of 0xff, or 0 where that stands for itself.
    int behindFill()
    {
        int marker = _bytes.next();
        while (marker == 0xff)
            marker = _bytes.next();
        _isAtEnd = marker < 0;
        return std::max(marker, 0);
    }

    ByteReader _bytes;
    std::array<std::array<HuffmanTable, 4>, 2> _tables; // of first and of other coefficients
    std::vector<Component> _components;
    std::vector<Component> _inScan;
    bool _isSequential = false;
    int _width = 0;
    int _height = 0;
    int _restartInterval = 0;
    int _byte = 0;
    int _bits = 0;
    int _hitMarker = 0;
    bool _isAtEnd = false; // of the file
};

bool isWholeJpeg(QIODevice &file)
{
    // Nearly all end so.
    constexpr char kEndMark[] = {'\xff', char(kEnd)};
    if (file.seek(std::max<qint64>(0, file.size() - 2)) && file.read(2) == QByteArrayView(kEndMark, 2))
        return true;
    return file.seek(0) && JpegFile(file).isWhole();
}

// Run lengths end with a mark, which may be missing where there is nothing left to say.
bool holdsAllRuns(ByteReader &bytes, qint64 width, qint64 height, qint64 bitsPerPixel)
{
    enum { kEndOfRow, kEndOfImage, kMove };
    qint64 x = 0, y = 0;
    for (;;) {
        const int count = bytes.next();
        const int value = bytes.next();
        if (value < 0)
            return y >= height || (y == height - 1 && x >= width);
        if (count > 0) {
            x += count;
        } else if (value == kEndOfRow) {
            x = 0;
            ++y;
        } else if (value == kEndOfImage) {
            return true;
        } else if (value == kMove) {
            x += std::max(0, bytes.next());
            y += std::max(0, bytes.next());
        } else {
            const int stored = bitsPerPixel == 4 ? (value + 1) / 2 : value;
            if (!bytes.skip((stored + 1) & ~1))
                return false;
            x += value;
        }
    }
}

bool isWholeBmp(QIODevice &file)
{
    constexpr int kFileHeader = 14, kOldHeader = 12, kHeader = 40;
    const QByteArray head = file.read(kFileHeader + kHeader);
    const auto number32 = [&](int at) { return qint64(qFromLittleEndian<qint32>(head.constData() + at)); };
    const auto number16 = [&](int at) { return qint64(qFromLittleEndian<quint16>(head.constData() + at)); };
    if (head.size() < kFileHeader + kOldHeader)
        return false;
    const qint64 headerSize = number32(14);
    if (headerSize != kOldHeader && head.size() < kFileHeader + kHeader)
        return false;
    const bool isOld = headerSize == kOldHeader;
    const qint64 width = isOld ? number16(18) : number32(18);
    const qint64 height = isOld ? number16(20) : std::abs(number32(22));
    const qint64 bitsPerPixel = isOld ? number16(24) : number16(28);
    const qint64 compression = isOld ? 0 : number32(30);
    const qint64 begin = std::max<qint64>(qFromLittleEndian<quint32>(head.constData() + 10), kFileHeader + headerSize);
    constexpr qint64 kRuns8 = 1, kRuns4 = 2;
    if (compression == kRuns8 || compression == kRuns4) {
        ByteReader bytes(file);
        return file.seek(begin) && holdsAllRuns(bytes, width, height, bitsPerPixel);
    }
    const qint64 bytesPerRow = (width * bitsPerPixel + 31) / 32 * 4;
    return bytesPerRow <= 0 || height <= (file.size() - begin) / bytesPerRow;
}

} // namespace

bool holdsWholeImage(QIODevice &file, const QByteArray &format, QString *error)
{
    const qint64 before = file.pos();
    file.seek(0);
    const bool isWhole = (format != "jpeg" || isWholeJpeg(file)) && (format != "bmp" || isWholeBmp(file));
    file.seek(before);
    if (!isWhole)
        *error = QStringLiteral("the end of the file is missing");
    return isWhole;
}

} // namespace Brevane::Kvo
