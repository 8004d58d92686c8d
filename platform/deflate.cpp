// The zlib compressor behind the PNG writer: LZ77 over a 32 KiB window with hash chains and
// a shallow one-step lazy match, then each block of symbols is sent with whichever of dynamic Huffman,
// fixed Huffman or stored costs the fewest bits. Aimed at "as small as zlib's default level
// within a small factor of its time", not at the last percent.
#include "platform/image_codecs_internal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <queue>

namespace wm::png::detail {

namespace {

constexpr std::size_t kWindowSize = 32768;
// Matches start at 4 bytes (hashed as 4): a 3-byte match barely beats its literals, and on
// 4-byte RGBA pixels a 4-byte hash keeps the chains free of near misses.
constexpr std::size_t kMinMatch = 4;
constexpr std::size_t kMaxMatch = 258;
constexpr int kLargestHashBits = 15;
constexpr int kMaxChainSteps = 16;
constexpr int kLazyChainSteps = 4;                // the second look, one byte ahead, is shallower
constexpr std::size_t kGoodEnoughMatch = 64;     // stop searching the chain at a match this long
constexpr std::size_t kLazyBelow = 32;           // only matches shorter than this try the next byte
constexpr std::size_t kSymbolsPerBlock = 1 << 16;  // large enough to pay for a dynamic header

// A literal (distance 0) or a match.
struct Symbol {
    std::uint16_t lengthOrLiteral;
    std::uint16_t distance;
};

std::uint32_t lengthSymbol(std::uint32_t length) {
    std::uint32_t code = 0;
    while (code + 1 < kLengthBase.size() && kLengthBase[code + 1] <= length) ++code;
    return code;
}

// Lookup tables for the symbol of each match length and distance.
struct SymbolTables {
    std::array<std::uint8_t, 259> lengthCode{};
    std::array<std::uint8_t, 512> distanceCodeSmall{};  // distances 1..512
    std::array<std::uint8_t, 256> distanceCodeLarge{};  // (distance - 1) >> 7 for larger ones
    SymbolTables() {
        for (std::uint32_t length = 3; length <= 258; ++length) lengthCode[length] = static_cast<std::uint8_t>(lengthSymbol(length));
        for (std::uint32_t code = 0; code < kDistanceBase.size(); ++code) {
            const std::uint32_t first = kDistanceBase[code];
            const std::uint32_t last = first + (1u << kDistanceExtra[code]) - 1;
            for (std::uint32_t distance = first; distance <= last; ++distance) {
                if (distance <= 512) distanceCodeSmall[distance - 1] = static_cast<std::uint8_t>(code);
                else distanceCodeLarge[(distance - 1) >> 7] = static_cast<std::uint8_t>(code);
            }
        }
    }
    std::uint32_t distanceCode(std::uint32_t distance) const {
        return distance <= 512 ? distanceCodeSmall[distance - 1] : distanceCodeLarge[(distance - 1) >> 7];
    }
};

const SymbolTables& symbolTables() {
    static const SymbolTables tables;
    return tables;
}

class BitWriter {
public:
    explicit BitWriter(std::vector<std::uint8_t>& out) : m_out(out) {}
    void write(std::uint32_t value, unsigned count) {
        m_bits |= static_cast<std::uint64_t>(value) << m_count;
        m_count += count;
        while (m_count >= 8) {
            m_out.push_back(static_cast<std::uint8_t>(m_bits));
            m_bits >>= 8;
            m_count -= 8;
        }
    }
    // Huffman codes go out most significant bit first; callers pass them pre-reversed.
    void alignToByte() {
        if (m_count > 0) write(0, 8 - m_count);
    }

private:
    std::vector<std::uint8_t>& m_out;
    std::uint64_t m_bits = 0;
    unsigned m_count = 0;
};

std::uint32_t reverseBits(std::uint32_t code, std::uint32_t length) {
    std::uint32_t reversed = 0;
    for (std::uint32_t bit = 0; bit < length; ++bit) reversed |= ((code >> bit) & 1u) << (length - 1 - bit);
    return reversed;
}

// Code lengths of a Huffman code for the frequencies, none longer than limit. When the optimal
// code is too deep, the frequencies are flattened (halved, keeping every used symbol) and the
// code rebuilt: simple, and the loss is a fraction of a percent on real data.
std::vector<std::uint8_t> huffmanLengths(std::vector<std::uint32_t> frequencies, std::uint32_t limit) {
    const std::size_t count = frequencies.size();
    std::vector<std::uint8_t> lengths(count, 0);
    for (;;) {
        std::vector<std::size_t> used;
        for (std::size_t symbol = 0; symbol < count; ++symbol)
            if (frequencies[symbol]) used.push_back(symbol);
        if (used.empty()) return lengths;
        if (used.size() == 1) {
            lengths[used[0]] = 1;
            return lengths;
        }
        // Nodes: leaves first, then internal nodes; parent links give each leaf its depth.
        std::vector<std::uint64_t> weight;
        std::vector<std::int32_t> parent;
        using Item = std::pair<std::uint64_t, std::int32_t>;
        std::priority_queue<Item, std::vector<Item>, std::greater<Item>> heap;
        for (std::size_t symbol : used) {
            heap.emplace(frequencies[symbol], static_cast<std::int32_t>(weight.size()));
            weight.push_back(frequencies[symbol]);
            parent.push_back(-1);
        }
        while (heap.size() > 1) {
            const Item first = heap.top();
            heap.pop();
            const Item second = heap.top();
            heap.pop();
            const std::int32_t node = static_cast<std::int32_t>(weight.size());
            weight.push_back(first.first + second.first);
            parent.push_back(-1);
            parent[static_cast<std::size_t>(first.second)] = node;
            parent[static_cast<std::size_t>(second.second)] = node;
            heap.emplace(first.first + second.first, node);
        }
        std::vector<std::uint32_t> depth(weight.size(), 0);
        for (std::size_t node = weight.size() - 1; node-- > 0;)
            depth[node] = depth[static_cast<std::size_t>(parent[node])] + 1;
        std::uint32_t deepest = 0;
        for (std::size_t leaf = 0; leaf < used.size(); ++leaf) deepest = std::max(deepest, depth[leaf]);
        if (deepest <= limit) {
            for (std::size_t leaf = 0; leaf < used.size(); ++leaf) lengths[used[leaf]] = static_cast<std::uint8_t>(depth[leaf]);
            return lengths;
        }
        for (std::uint32_t& frequency : frequencies)
            if (frequency) frequency = (frequency >> 1) | 1;
    }
}

// Canonical codes (bit-reversed for the writer) from code lengths.
std::vector<std::uint16_t> canonicalCodes(const std::vector<std::uint8_t>& lengths) {
    std::array<std::uint32_t, 16> lengthCount{};
    for (std::uint8_t length : lengths) ++lengthCount[length];
    lengthCount[0] = 0;
    std::array<std::uint32_t, 16> nextCode{};
    std::uint32_t code = 0;
    for (int length = 1; length <= 15; ++length) {
        code = (code + lengthCount[length - 1]) << 1;
        nextCode[length] = code;
    }
    std::vector<std::uint16_t> codes(lengths.size(), 0);
    for (std::size_t symbol = 0; symbol < lengths.size(); ++symbol)
        if (lengths[symbol]) codes[symbol] = static_cast<std::uint16_t>(reverseBits(nextCode[lengths[symbol]]++, lengths[symbol]));
    return codes;
}

struct CodeLengthRun {
    std::uint8_t symbol;  // 0-15 a length, 16-18 a repeat
    std::uint8_t extra;   // the repeat's extra-bit value
};

// The run-length form of the literal/length and distance code lengths, as the dynamic header sends it.
std::vector<CodeLengthRun> encodeCodeLengths(const std::vector<std::uint8_t>& lengths) {
    std::vector<CodeLengthRun> runs;
    for (std::size_t index = 0; index < lengths.size();) {
        const std::uint8_t value = lengths[index];
        std::size_t run = 1;
        while (index + run < lengths.size() && lengths[index + run] == value) ++run;
        index += run;
        if (value == 0) {
            while (run >= 11) {
                const std::size_t take = std::min<std::size_t>(run, 138);
                runs.push_back({18, static_cast<std::uint8_t>(take - 11)});
                run -= take;
            }
            if (run >= 3) {
                runs.push_back({17, static_cast<std::uint8_t>(run - 3)});
                run = 0;
            }
        } else {
            runs.push_back({value, 0});
            --run;
            while (run >= 3) {
                const std::size_t take = std::min<std::size_t>(run, 6);
                runs.push_back({16, static_cast<std::uint8_t>(take - 3)});
                run -= take;
            }
        }
        for (; run > 0; --run) runs.push_back({value, 0});
    }
    return runs;
}

constexpr std::array<std::uint8_t, 19> kRunExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 3, 7};

class Deflater {
public:
    Deflater(const std::uint8_t* data, std::size_t size, std::vector<std::uint8_t>& out)
        : m_data(data), m_size(size), m_writer(out), m_hashBits(hashBitsFor(size)), m_head(std::size_t(1) << m_hashBits, -1),
          m_previous(std::size_t(1) << m_hashBits, -1), m_previousMask((std::size_t(1) << m_hashBits) - 1) {}

    void run();

private:
    // Small inputs get a small hash table: clearing 32K heads for a 100-byte block would cost
    // more than compressing it.
    // The chain links then fit the same size: it is at least the input's size or the window's.
    static int hashBitsFor(std::size_t size) {
        int bits = 8;
        while (bits < kLargestHashBits && (std::size_t(1) << bits) < size) ++bits;
        return bits;
    }
    std::uint32_t hashAt(std::size_t position) const {
        return (readLe32(m_data + position) * 2654435761u) >> (32 - m_hashBits);
    }
    void insert(std::size_t position) {
        if (position + kMinMatch > m_size) return;
        const std::uint32_t hash = hashAt(position);
        m_previous[position & m_previousMask] = m_head[hash];
        m_head[hash] = static_cast<std::int64_t>(position);
    }
    // The longest earlier match for position within the window, or a length below kMinMatch.
    std::size_t longestMatch(std::size_t position, int chainSteps, std::size_t& distance) const;
    void flushBlock(bool last);
    std::uint64_t huffmanCost(const std::vector<std::uint8_t>& literalLengths,
                              const std::vector<std::uint8_t>& distanceLengths) const;
    void writeSymbols(const std::vector<std::uint8_t>& literalLengths, const std::vector<std::uint8_t>& distanceLengths);

    const std::uint8_t* m_data;
    std::size_t m_size;
    BitWriter m_writer;
    int m_hashBits;
    std::vector<std::int64_t> m_head;
    std::vector<std::int64_t> m_previous;  // chain links, indexed by position modulo its size
    std::size_t m_previousMask;
    std::vector<Symbol> m_symbols;
    std::size_t m_blockStart = 0;  // first input byte of the pending block
    std::size_t m_position = 0;
    std::array<std::uint32_t, 286> m_literalFrequency{};
    std::array<std::uint32_t, 30> m_distanceFrequency{};
};

// Common length of a and b, at most limit; eight bytes at a time.
std::size_t matchLength(const std::uint8_t* a, const std::uint8_t* b, std::size_t limit) {
    std::size_t length = 0;
    while (length + 8 <= limit) {
        std::uint64_t left, right;
        std::memcpy(&left, a + length, 8);
        std::memcpy(&right, b + length, 8);
        const std::uint64_t difference = left ^ right;
        if (difference) {
            if constexpr (std::endian::native == std::endian::little)
                return length + static_cast<std::size_t>(std::countr_zero(difference)) / 8;
            break;  // big-endian: finish byte by byte
        }
        length += 8;
    }
    while (length < limit && a[length] == b[length]) ++length;
    return length;
}

std::size_t Deflater::longestMatch(std::size_t position, int chainSteps, std::size_t& distance) const {
    std::size_t best = 0;
    const std::size_t limit = std::min(kMaxMatch, m_size - position);
    if (limit < kMinMatch) return 0;
    std::int64_t candidate = m_head[hashAt(position)];
    for (int step = 0; step < chainSteps && candidate >= 0; ++step) {
        const std::size_t earlier = static_cast<std::size_t>(candidate);
        if (earlier >= position || position - earlier > kWindowSize) break;
        const std::uint8_t* a = m_data + earlier;
        const std::uint8_t* b = m_data + position;
        if (a[best] == b[best] && a[0] == b[0]) {
            const std::size_t length = matchLength(a, b, limit);
            if (length > best) {
                best = length;
                distance = position - earlier;
                if (length >= kGoodEnoughMatch || length == limit) break;
            }
        }
        const std::int64_t next = m_previous[earlier & m_previousMask];
        if (next >= candidate) break;  // the slot was reused by a newer position
        candidate = next;
    }
    return best >= kMinMatch ? best : 0;
}

std::uint64_t Deflater::huffmanCost(const std::vector<std::uint8_t>& literalLengths,
                                    const std::vector<std::uint8_t>& distanceLengths) const {
    std::uint64_t bits = 0;
    for (std::size_t symbol = 0; symbol < 286; ++symbol) {
        std::uint64_t perSymbol = literalLengths[symbol];
        if (symbol > 256) perSymbol += kLengthExtra[symbol - 257];
        bits += perSymbol * m_literalFrequency[symbol];
    }
    for (std::size_t symbol = 0; symbol < 30; ++symbol)
        bits += std::uint64_t(distanceLengths[symbol] + kDistanceExtra[symbol]) * m_distanceFrequency[symbol];
    return bits;
}

void Deflater::writeSymbols(const std::vector<std::uint8_t>& literalLengths, const std::vector<std::uint8_t>& distanceLengths) {
    const std::vector<std::uint16_t> literalCodes = canonicalCodes(literalLengths);
    const std::vector<std::uint16_t> distanceCodes = canonicalCodes(distanceLengths);
    const SymbolTables& tables = symbolTables();
    for (const Symbol& symbol : m_symbols) {
        if (symbol.distance == 0) {
            m_writer.write(literalCodes[symbol.lengthOrLiteral], literalLengths[symbol.lengthOrLiteral]);
            continue;
        }
        const std::uint32_t lengthCode = tables.lengthCode[symbol.lengthOrLiteral];
        m_writer.write(literalCodes[257 + lengthCode], literalLengths[257 + lengthCode]);
        m_writer.write(symbol.lengthOrLiteral - kLengthBase[lengthCode], kLengthExtra[lengthCode]);
        const std::uint32_t distanceCode = tables.distanceCode(symbol.distance);
        m_writer.write(distanceCodes[distanceCode], distanceLengths[distanceCode]);
        m_writer.write(symbol.distance - kDistanceBase[distanceCode], kDistanceExtra[distanceCode]);
    }
    m_writer.write(literalCodes[256], literalLengths[256]);
}

void Deflater::flushBlock(bool last) {
    m_literalFrequency[256] = 1;
    std::vector<std::uint8_t> literalLengths =
        huffmanLengths(std::vector<std::uint32_t>(m_literalFrequency.begin(), m_literalFrequency.end()), 15);
    std::vector<std::uint8_t> distanceLengths =
        huffmanLengths(std::vector<std::uint32_t>(m_distanceFrequency.begin(), m_distanceFrequency.end()), 15);

    // The dynamic header: trailing unused codes are cut, down to the minimum counts.
    std::size_t literalCount = 286;
    while (literalCount > 257 && literalLengths[literalCount - 1] == 0) --literalCount;
    std::size_t distanceCount = 30;
    while (distanceCount > 1 && distanceLengths[distanceCount - 1] == 0) --distanceCount;
    std::vector<std::uint8_t> allLengths(literalLengths.begin(), literalLengths.begin() + static_cast<std::ptrdiff_t>(literalCount));
    allLengths.insert(allLengths.end(), distanceLengths.begin(), distanceLengths.begin() + static_cast<std::ptrdiff_t>(distanceCount));
    const std::vector<CodeLengthRun> runs = encodeCodeLengths(allLengths);
    std::vector<std::uint32_t> runFrequency(19, 0);
    for (const CodeLengthRun& run : runs) ++runFrequency[run.symbol];
    const std::vector<std::uint8_t> runLengths = huffmanLengths(runFrequency, 7);
    std::size_t runCodeCount = 19;
    while (runCodeCount > 4 && runLengths[kCodeLengthOrder[runCodeCount - 1]] == 0) --runCodeCount;
    std::uint64_t dynamicBits = 17 + 3 * runCodeCount + huffmanCost(literalLengths, distanceLengths);
    for (const CodeLengthRun& run : runs) dynamicBits += runLengths[run.symbol] + kRunExtraBits[run.symbol];

    // The fixed code is defined over all 288 symbols; the last two take part in the canonical
    // numbering although no stream uses them.
    std::vector<std::uint8_t> fixedLiteral(288, 8), fixedDistance(30, 5);
    std::fill(fixedLiteral.begin() + 144, fixedLiteral.begin() + 256, 9);
    std::fill(fixedLiteral.begin() + 256, fixedLiteral.begin() + 280, 7);
    const std::uint64_t fixedBits = 3 + huffmanCost(fixedLiteral, fixedDistance);
    const std::size_t blockBytes = m_position - m_blockStart;
    // Stored blocks hold at most 65535 bytes each; count their headers and padding generously.
    const std::uint64_t storedBits = (blockBytes + 5 * (blockBytes / 65535 + 1)) * 8 + 8;

    if (storedBits < fixedBits && storedBits < dynamicBits) {
        std::size_t offset = m_blockStart;
        do {
            const std::size_t length = std::min<std::size_t>(65535, m_position - offset);
            const bool final = last && offset + length == m_position;
            m_writer.write(final ? 1 : 0, 1);
            m_writer.write(0, 2);
            m_writer.alignToByte();
            m_writer.write(static_cast<std::uint32_t>(length), 16);
            m_writer.write(static_cast<std::uint32_t>(length) ^ 0xFFFF, 16);
            for (std::size_t index = 0; index < length; ++index) m_writer.write(m_data[offset + index], 8);
            offset += length;
        } while (offset < m_position);
    } else if (fixedBits <= dynamicBits) {
        m_writer.write(last ? 1 : 0, 1);
        m_writer.write(1, 2);
        writeSymbols(fixedLiteral, fixedDistance);
    } else {
        m_writer.write(last ? 1 : 0, 1);
        m_writer.write(2, 2);
        m_writer.write(static_cast<std::uint32_t>(literalCount - 257), 5);
        m_writer.write(static_cast<std::uint32_t>(distanceCount - 1), 5);
        m_writer.write(static_cast<std::uint32_t>(runCodeCount - 4), 4);
        for (std::size_t index = 0; index < runCodeCount; ++index) m_writer.write(runLengths[kCodeLengthOrder[index]], 3);
        const std::vector<std::uint16_t> runCodes = canonicalCodes(runLengths);
        for (const CodeLengthRun& run : runs) {
            m_writer.write(runCodes[run.symbol], runLengths[run.symbol]);
            if (kRunExtraBits[run.symbol]) m_writer.write(run.extra, kRunExtraBits[run.symbol]);
        }
        writeSymbols(literalLengths, distanceLengths);
    }
    m_symbols.clear();
    m_literalFrequency.fill(0);
    m_distanceFrequency.fill(0);
    m_blockStart = m_position;
}

void Deflater::run() {
    const SymbolTables& tables = symbolTables();
    m_symbols.reserve(kSymbolsPerBlock);
    auto emitLiteral = [&](std::size_t position) {
        m_symbols.push_back({m_data[position], 0});
        ++m_literalFrequency[m_data[position]];
    };
    while (m_position < m_size) {
        std::size_t distance = 0;
        std::size_t length = longestMatch(m_position, kMaxChainSteps, distance);
        insert(m_position);
        if (length > 0 && length < kLazyBelow && m_position + 1 < m_size) {
            // Lazy step: if the next position starts a longer match, this byte goes as a literal.
            std::size_t nextDistance = 0;
            const std::size_t nextLength = longestMatch(m_position + 1, kLazyChainSteps, nextDistance);
            if (nextLength > length) {
                emitLiteral(m_position);
                ++m_position;
                length = nextLength;
                distance = nextDistance;
                insert(m_position);
            }
        }
        if (length == 0) {
            emitLiteral(m_position);
            ++m_position;
        } else {
            m_symbols.push_back({static_cast<std::uint16_t>(length), static_cast<std::uint16_t>(distance)});
            ++m_literalFrequency[257 + tables.lengthCode[length]];
            ++m_distanceFrequency[tables.distanceCode(static_cast<std::uint32_t>(distance))];
            for (std::size_t index = 1; index < length; ++index) insert(m_position + index);
            m_position += length;
        }
        if (m_symbols.size() >= kSymbolsPerBlock) flushBlock(false);
    }
    flushBlock(true);
    m_writer.alignToByte();
}

}  // namespace

std::vector<std::uint8_t> deflateZlib(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> out;
    out.reserve(size / 2 + 64);
    out.push_back(0x78);  // DEFLATE, 32 KiB window
    out.push_back(0x9C);  // default level; 0x789C is a multiple of 31
    Deflater(data, size, out).run();
    const std::uint32_t adler = adler32(data, size);
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(adler >> shift));
    return out;
}

}  // namespace wm::png::detail
