// The zlib inflater: stored, fixed-Huffman and dynamic-Huffman DEFLATE blocks (RFC 1951) inside
// a zlib wrapper (RFC 1950), decoding into a caller-sized buffer.
//
// Speed comes from three habits: a 64-bit bit buffer refilled eight bytes at a time, so one
// refill covers a whole length/distance pair; two-level lookup tables, so most symbols cost one
// load; and match copies done eight bytes at a time when the distance allows.
#include "platform/image_codecs_internal.h"

#include <array>
#include <bit>
#include <memory>

namespace wm::png::detail {

namespace {

// Table entries pack everything the decoder needs so that a literal costs one load:
//   bits 0-7   code length in bits (for a subtable link: the subtable's index bits)
//   bits 8-11  extra bits that follow the code (lengths and distances)
//   bits 12-14 kind
//   bits 16-31 literal byte, base length, base distance or subtable offset
enum EntryKind : std::uint32_t { kInvalid = 0, kLiteral = 1, kLength = 2, kEndOfBlock = 3, kLink = 4, kDistance = 5 };

constexpr std::uint32_t makeEntry(std::uint32_t kind, std::uint32_t value, std::uint32_t extraBits, std::uint32_t bits) {
    return (value << 16) | (kind << 12) | (extraBits << 8) | bits;
}
constexpr std::uint32_t entryBits(std::uint32_t entry) { return entry & 0xFF; }
constexpr std::uint32_t entryExtra(std::uint32_t entry) { return (entry >> 8) & 0xF; }
constexpr std::uint32_t entryKind(std::uint32_t entry) { return (entry >> 12) & 0x7; }
constexpr std::uint32_t entryValue(std::uint32_t entry) { return entry >> 16; }

enum class Alphabet { LiteralLength, Distance, CodeLength };

// Primary index bits; longer codes go through one subtable whose size fits the longest code.
// The capacities cover the worst case: every code of an alphabet longer than the primary bits,
// each in a subtable of its own.
constexpr int kLiteralPrimaryBits = 10;
constexpr int kDistancePrimaryBits = 8;
constexpr int kCodeLengthPrimaryBits = 7;
constexpr std::size_t kLiteralTableSize = (1u << kLiteralPrimaryBits) + 288 * (1u << (15 - kLiteralPrimaryBits));
constexpr std::size_t kDistanceTableSize = (1u << kDistancePrimaryBits) + 32 * (1u << (15 - kDistancePrimaryBits));

std::uint32_t entryForSymbol(Alphabet alphabet, std::uint32_t symbol, std::uint32_t bits) {
    switch (alphabet) {
    case Alphabet::LiteralLength:
        if (symbol < 256) return makeEntry(kLiteral, symbol, 0, bits);
        if (symbol == 256) return makeEntry(kEndOfBlock, 0, 0, bits);
        if (symbol - 257 < kLengthBase.size())
            return makeEntry(kLength, kLengthBase[symbol - 257], kLengthExtra[symbol - 257], bits);
        return makeEntry(kInvalid, 0, 0, bits);  // 286 and 287 have codes in the fixed table but no meaning
    case Alphabet::Distance:
        if (symbol < kDistanceBase.size()) return makeEntry(kDistance, kDistanceBase[symbol], kDistanceExtra[symbol], bits);
        return makeEntry(kInvalid, 0, 0, bits);
    case Alphabet::CodeLength: return makeEntry(kLiteral, symbol, 0, bits);
    }
    return 0;
}

std::uint32_t reverseBits(std::uint32_t code, std::uint32_t length) {
    std::uint32_t reversed = 0;
    for (std::uint32_t bit = 0; bit < length; ++bit) reversed |= ((code >> bit) & 1u) << (length - 1 - bit);
    return reversed;
}

struct HuffmanTable {
    std::uint32_t* entries = nullptr;
    int primaryBits = 0;
    int subtableBits = 0;
};

// Builds the canonical code of the given lengths into storage. Over-subscribed codes are
// refused; incomplete ones are allowed (RFC 1951 permits a single distance code), and their
// unused bit patterns stay kInvalid so that meeting one is an error, not a wild read.
bool buildTable(const std::uint8_t* lengths, std::size_t count, Alphabet alphabet, int primaryBits,
                std::uint32_t* storage, HuffmanTable& table) {
    std::array<std::uint32_t, 16> lengthCount{};
    for (std::size_t symbol = 0; symbol < count; ++symbol) ++lengthCount[lengths[symbol]];
    lengthCount[0] = 0;
    int left = 1;
    int longest = 0;
    for (int length = 1; length <= 15; ++length) {
        left = (left << 1) - static_cast<int>(lengthCount[length]);
        if (left < 0) return false;
        if (lengthCount[length]) longest = length;
    }
    std::array<std::uint32_t, 16> nextCode{};
    std::uint32_t code = 0;
    for (int length = 1; length <= 15; ++length) {
        code = (code + lengthCount[length - 1]) << 1;
        nextCode[length] = code;
    }
    table.entries = storage;
    table.primaryBits = primaryBits;
    table.subtableBits = longest > primaryBits ? longest - primaryBits : 0;
    const std::uint32_t primarySize = 1u << primaryBits;
    const std::uint32_t subtableSize = 1u << table.subtableBits;
    std::fill(storage, storage + primarySize, 0u);
    std::uint32_t nextSubtable = primarySize;
    for (std::size_t symbol = 0; symbol < count; ++symbol) {
        const std::uint32_t length = lengths[symbol];
        if (length == 0) continue;
        // DEFLATE sends codes most significant bit first into a buffer read from the bottom.
        const std::uint32_t reversed = reverseBits(nextCode[length]++, length);
        const std::uint32_t entry = entryForSymbol(alphabet, static_cast<std::uint32_t>(symbol), length);
        if (static_cast<int>(length) <= primaryBits) {
            for (std::uint32_t index = reversed; index < primarySize; index += 1u << length) storage[index] = entry;
            continue;
        }
        const std::uint32_t prefix = reversed & (primarySize - 1);
        if (entryKind(storage[prefix]) != kLink) {
            std::fill(storage + nextSubtable, storage + nextSubtable + subtableSize, 0u);
            storage[prefix] = makeEntry(kLink, nextSubtable, 0, static_cast<std::uint32_t>(table.subtableBits));
            nextSubtable += subtableSize;
        }
        std::uint32_t* subtable = storage + entryValue(storage[prefix]);
        const std::uint32_t step = 1u << (length - static_cast<std::uint32_t>(primaryBits));
        for (std::uint32_t index = reversed >> primaryBits; index < subtableSize; index += step) subtable[index] = entry;
    }
    return true;
}

std::uint64_t loadLittleEndian64(const std::uint8_t* p) {
    if constexpr (std::endian::native == std::endian::little) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        return word;
    } else {
        std::uint64_t word = 0;
        for (int index = 7; index >= 0; --index) word = (word << 8) | p[index];
        return word;
    }
}

// The input side: a 64-bit buffer of bits not yet consumed, lowest first.
struct BitReader {
    const std::uint8_t* input;
    const std::uint8_t* inputEnd;
    std::uint64_t bits = 0;
    unsigned bitCount = 0;
    unsigned padding = 0;  // zero bytes shifted in past the end of the input

    // Keeps at least 56 bits in the buffer. Bits above bitCount may already hold the next
    // bytes; loading them again ORs in the same values, which is what lets the fast path load
    // eight bytes at once without masking. Past the end of the input it shifts in zero bytes
    // and counts them; consuming any of them means the stream was truncated.
    void refill() {
        if (inputEnd - input >= 8) {
            bits |= loadLittleEndian64(input) << bitCount;
            input += (63 - bitCount) >> 3;
            bitCount |= 56;
            return;
        }
        while (bitCount <= 56) {
            std::uint64_t byte = 0;
            if (input < inputEnd) byte = *input++;
            else ++padding;
            bits |= byte << bitCount;
            bitCount += 8;
        }
    }
    bool overran() const { return padding * 8 > bitCount; }
    std::uint32_t peek(unsigned count) const { return static_cast<std::uint32_t>(bits & ((1ull << count) - 1)); }
    void consume(unsigned count) {
        bits >>= count;
        bitCount -= count;
    }
    std::uint32_t take(unsigned count) {
        std::uint32_t value = peek(count);
        consume(count);
        return value;
    }
    std::uint32_t lookup(const HuffmanTable& table) const {
        std::uint32_t entry = table.entries[bits & ((1u << table.primaryBits) - 1)];
        if (entryKind(entry) == kLink)
            entry = table.entries[entryValue(entry) + ((bits >> table.primaryBits) & ((1u << entryBits(entry)) - 1))];
        return entry;
    }
};

class Inflater {
public:
    Inflater(const std::uint8_t* data, std::size_t size, std::uint8_t* out, std::size_t capacity)
        : m_in{data, data + size}, m_outputStart(out), m_output(out), m_outputEnd(out + capacity) {}

    bool run(std::size_t& produced, std::string& error);

private:
    bool fail(const char* message) {
        m_error = message;
        return false;
    }
    bool storedBlock();
    bool readDynamicTables();
    void buildFixedTables();
    bool decodeHuffmanBlock();

    BitReader m_in;
    std::uint8_t* m_outputStart;
    std::uint8_t* m_output;
    std::uint8_t* m_outputEnd;
    const char* m_error = "";
    HuffmanTable m_literals;
    HuffmanTable m_distances;
    // Left uninitialised: buildTable writes every entry a lookup can reach.
    std::array<std::uint32_t, kLiteralTableSize> m_literalStorage;
    std::array<std::uint32_t, kDistanceTableSize> m_distanceStorage;
};

// Stored block: after the 3 header bits, skip to a byte boundary, then LEN, NLEN (its
// complement) and LEN raw bytes.
bool Inflater::storedBlock() {
    m_in.consume(m_in.bitCount & 7);
    m_in.refill();
    const std::uint32_t length = m_in.take(16);
    const std::uint32_t complement = m_in.take(16);
    if (m_in.overran()) return fail("truncated stored block");
    if ((length ^ 0xFFFF) != complement) return fail("stored block length does not match its complement");
    // Hand the whole bytes still in the bit buffer back to the input and copy directly.
    const unsigned bufferedBytes = m_in.bitCount >> 3;
    m_in.input -= bufferedBytes - m_in.padding;
    m_in.bits = 0;
    m_in.bitCount = 0;
    m_in.padding = 0;
    if (static_cast<std::size_t>(m_in.inputEnd - m_in.input) < length) return fail("truncated stored block");
    if (static_cast<std::size_t>(m_outputEnd - m_output) < length) return fail("more data than expected");
    std::memcpy(m_output, m_in.input, length);
    m_output += length;
    m_in.input += length;
    return true;
}

void Inflater::buildFixedTables() {
    std::array<std::uint8_t, 288> lengths{};
    std::fill(lengths.begin(), lengths.begin() + 144, 8);
    std::fill(lengths.begin() + 144, lengths.begin() + 256, 9);
    std::fill(lengths.begin() + 256, lengths.begin() + 280, 7);
    std::fill(lengths.begin() + 280, lengths.end(), 8);
    buildTable(lengths.data(), lengths.size(), Alphabet::LiteralLength, kLiteralPrimaryBits, m_literalStorage.data(), m_literals);
    std::array<std::uint8_t, 32> distanceLengths{};
    distanceLengths.fill(5);
    buildTable(distanceLengths.data(), distanceLengths.size(), Alphabet::Distance, kDistancePrimaryBits,
               m_distanceStorage.data(), m_distances);
}

// dynamic header -> HLIT(5) HDIST(5) HCLEN(4) code-length-code lengths (3 bits each, in
// kCodeLengthOrder), then HLIT+HDIST lengths coded with it, where 16 repeats the previous
// length 3-6 times, 17 writes 3-10 zeros and 18 writes 11-138 zeros.
bool Inflater::readDynamicTables() {
    m_in.refill();
    const std::uint32_t literalCount = m_in.take(5) + 257;
    const std::uint32_t distanceCount = m_in.take(5) + 1;
    const std::uint32_t codeLengthCount = m_in.take(4) + 4;
    if (literalCount > 286 || distanceCount > 30) return fail("too many codes in a dynamic block");
    std::array<std::uint8_t, 19> codeLengthLengths{};
    for (std::uint32_t index = 0; index < codeLengthCount; ++index) {
        m_in.refill();
        codeLengthLengths[kCodeLengthOrder[index]] = static_cast<std::uint8_t>(m_in.take(3));
    }
    std::array<std::uint32_t, 1u << kCodeLengthPrimaryBits> codeLengthStorage{};
    HuffmanTable codeLengths;
    if (!buildTable(codeLengthLengths.data(), codeLengthLengths.size(), Alphabet::CodeLength, kCodeLengthPrimaryBits,
                    codeLengthStorage.data(), codeLengths))
        return fail("invalid code-length code");
    std::array<std::uint8_t, 286 + 30> lengths{};
    const std::uint32_t total = literalCount + distanceCount;
    std::uint32_t index = 0;
    while (index < total) {
        m_in.refill();
        if (m_in.overran()) return fail("truncated dynamic block header");
        const std::uint32_t entry = m_in.lookup(codeLengths);
        if (entryKind(entry) == kInvalid) return fail("invalid code in a dynamic block header");
        m_in.consume(entryBits(entry));
        const std::uint32_t symbol = entryValue(entry);
        if (symbol < 16) {
            lengths[index++] = static_cast<std::uint8_t>(symbol);
            continue;
        }
        std::uint8_t value = 0;
        std::uint32_t repeat = 0;
        if (symbol == 16) {
            if (index == 0) return fail("length repeat with no previous length");
            value = lengths[index - 1];
            repeat = 3 + m_in.take(2);
        } else if (symbol == 17) {
            repeat = 3 + m_in.take(3);
        } else {
            repeat = 11 + m_in.take(7);
        }
        if (repeat > total - index) return fail("code lengths overrun the alphabet");
        std::fill(lengths.begin() + index, lengths.begin() + index + repeat, value);
        index += repeat;
    }
    if (lengths[256] == 0) return fail("dynamic block has no end-of-block code");
    if (!buildTable(lengths.data(), literalCount, Alphabet::LiteralLength, kLiteralPrimaryBits, m_literalStorage.data(),
                    m_literals))
        return fail("invalid literal/length code");
    if (!buildTable(lengths.data() + literalCount, distanceCount, Alphabet::Distance, kDistancePrimaryBits,
                    m_distanceStorage.data(), m_distances))
        return fail("invalid distance code");
    return true;
}

// The hot loop works on local copies of the reader and the output pointer, so that they live
// in registers; every exit stores them back.
bool Inflater::decodeHuffmanBlock() {
    BitReader in = m_in;
    std::uint8_t* out = m_output;
    std::uint8_t* const outEnd = m_outputEnd;
    std::uint8_t* const outStart = m_outputStart;
    const HuffmanTable literals = m_literals;
    const HuffmanTable distances = m_distances;
    const char* problem = nullptr;
    for (;;) {
        // One refill leaves at least 56 bits: enough for a literal/length code with its extra
        // bits (15 + 5) and a distance code with its extra bits (15 + 13).
        in.refill();
        std::uint32_t entry = in.lookup(literals);
        in.consume(entryBits(entry));
        std::uint32_t kind = entryKind(entry);
        if (kind == kLiteral) {
            if (out == outEnd) {
                problem = "more data than expected";
                break;
            }
            *out++ = static_cast<std::uint8_t>(entryValue(entry));
            // Literals come in runs; a second one fits in the same refill.
            entry = in.lookup(literals);
            if (entryKind(entry) != kLiteral) continue;
            in.consume(entryBits(entry));
            if (out == outEnd) {
                problem = "more data than expected";
                break;
            }
            *out++ = static_cast<std::uint8_t>(entryValue(entry));
            if (in.overran()) {
                problem = "truncated data";
                break;
            }
            continue;
        }
        if (in.overran()) {
            problem = "truncated data";
            break;
        }
        if (kind == kEndOfBlock) break;
        if (kind != kLength) {
            problem = "invalid literal/length code";
            break;
        }
        const std::size_t length = entryValue(entry) + in.take(entryExtra(entry));
        entry = in.lookup(distances);
        if (entryKind(entry) != kDistance) {
            problem = "invalid distance code";
            break;
        }
        in.consume(entryBits(entry));
        const std::size_t distance = entryValue(entry) + in.take(entryExtra(entry));
        if (in.overran()) {
            problem = "truncated data";
            break;
        }
        if (distance > static_cast<std::size_t>(out - outStart)) {
            problem = "distance reaches before the start";
            break;
        }
        const std::size_t room = static_cast<std::size_t>(outEnd - out);
        if (length > room) {
            problem = "more data than expected";
            break;
        }
        const std::uint8_t* source = out - distance;
        std::uint8_t* const end = out + length;
        if (room >= length + 8) {
            // Word copies may write up to 7 bytes past the match; the room check keeps them
            // inside the buffer, and later output overwrites them.
            if (distance >= 8) {
                do {
                    std::memcpy(out, source, 8);
                    out += 8;
                    source += 8;
                } while (out < end);
            } else if (distance == 1) {
                std::uint64_t pattern = 0x0101010101010101ull * *source;
                do {
                    std::memcpy(out, &pattern, 8);
                    out += 8;
                } while (out < end);
            } else {
                // Short distances (pixels of 2 to 7 bytes): the output repeats with every
                // multiple of the distance too, so after a few single bytes it can be copied in
                // words from a multiple that is at least 8 back.
                const std::size_t stride = distance * ((8 + distance - 1) / distance);
                std::uint8_t* target = out;
                while (target < end && target < out + (stride - distance)) {
                    *target = *(target - distance);
                    ++target;
                }
                for (; target < end; target += 8) std::memcpy(target, target - stride, 8);
            }
        } else {
            while (out < end) *out++ = *source++;
        }
        out = end;
    }
    m_in = in;
    m_output = out;
    if (problem) return fail(problem);
    return true;
}

bool Inflater::run(std::size_t& produced, std::string& error) {
    auto failed = [&] {
        error = m_error;
        return false;
    };
    if (m_in.inputEnd - m_in.input < 2) return fail("too short for a zlib stream"), failed();
    const std::uint32_t method = m_in.input[0];
    const std::uint32_t flags = m_in.input[1];
    if ((method & 0x0F) != 8 || (method >> 4) > 7) return fail("not a DEFLATE zlib stream"), failed();
    if ((method * 256 + flags) % 31 != 0) return fail("zlib header check failed"), failed();
    if (flags & 0x20) return fail("zlib preset dictionaries are not supported"), failed();
    m_in.input += 2;
    bool last = false;
    while (!last) {
        m_in.refill();
        last = m_in.take(1) != 0;
        const std::uint32_t type = m_in.take(2);
        if (m_in.overran()) return fail("truncated data"), failed();
        bool ok = false;
        if (type == 0) ok = storedBlock();
        else if (type == 1) {
            buildFixedTables();
            ok = decodeHuffmanBlock();
        } else if (type == 2) ok = readDynamicTables() && decodeHuffmanBlock();
        else ok = fail("invalid block type");
        if (!ok) return failed();
    }
    // The Adler-32 of the output follows on the next byte boundary, most significant byte first.
    m_in.consume(m_in.bitCount & 7);
    m_in.refill();
    std::uint32_t expected = 0;
    for (int byte = 0; byte < 4; ++byte) expected = (expected << 8) | m_in.take(8);
    if (m_in.overran()) return fail("missing Adler-32 checksum"), failed();
    const std::size_t size = static_cast<std::size_t>(m_output - m_outputStart);
    if (adler32(m_outputStart, size) != expected) return fail("Adler-32 checksum mismatch"), failed();
    produced = size;
    return true;
}

}  // namespace

std::uint32_t adler32(const std::uint8_t* data, std::size_t size, std::uint32_t adler) {
    // 5552 is the most bytes whose sums cannot overflow 32 bits before the modulo.
    constexpr std::uint32_t kModulus = 65521;
    std::uint32_t low = adler & 0xFFFF;
    std::uint32_t high = adler >> 16;
    while (size > 0) {
        std::size_t chunk = size < 5552 ? size : 5552;
        size -= chunk;
        while (chunk >= 8) {
            for (int index = 0; index < 8; ++index) {
                low += data[index];
                high += low;
            }
            data += 8;
            chunk -= 8;
        }
        while (chunk-- > 0) {
            low += *data++;
            high += low;
        }
        low %= kModulus;
        high %= kModulus;
    }
    return (high << 16) | low;
}

bool inflateZlib(const std::uint8_t* data, std::size_t size, std::uint8_t* out, std::size_t capacity,
                 std::size_t& produced, std::string& error) {
    // The tables are large for the stack of a fiber; they live on the heap for one stream.
    auto inflater = std::make_unique<Inflater>(data, size, out, capacity);
    return inflater->run(produced, error);
}

}  // namespace wm::png::detail

namespace wm::png {

bool zlibDecompress(const std::uint8_t* data, std::size_t size, std::size_t maxOutput, std::vector<std::uint8_t>& out,
                    std::string& error) {
    return detail::decodeWithoutThrowing("zlib", error, [&] {
        const std::uint64_t justified = detail::maxInflatedSize(size);
        std::vector<std::uint8_t> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(maxOutput, justified)));
        std::size_t produced = 0;
        if (!detail::inflateZlib(data, size, buffer.data(), buffer.size(), produced, error)) return false;
        buffer.resize(produced);
        out = std::move(buffer);
        return true;
    });
}

}  // namespace wm::png
