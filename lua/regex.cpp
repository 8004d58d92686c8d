// The regular-expression engine: a parser for the ECMAScript subset, a compiler to a short
// instruction list, and a backtracking search on an explicit stack.
//
// Every change to the match state (a capture, a loop counter) pushes the old value on the same
// stack as the choice points, so failing back to a choice undoes exactly what happened after it.
// A single-byte item under a quantifier ("[0-9]*", "[\s\S]*?") is one instruction with one stack
// frame for all its repetitions, which keeps the common patterns fast and their memory constant.
#include "regex_internal.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cstring>

namespace korvel::lua {

namespace {

using ByteSet = std::bitset<256>;

constexpr std::uint32_t kUnsetSlot = 0xFFFFFFFFu;
// Stack frames a thread keeps between searches; a larger stack is freed after its search.
constexpr std::size_t kRetainedFrames = 1 << 16;
constexpr int kUnbounded = -1;

// ---- syntax tree ----

struct Node {
    enum class Kind : std::uint8_t { Set, Start, End, Group, Repeat };
    Kind kind = Kind::Set;
    bool greedy = true;
    int set = -1;        // Set: index into the set table
    int group = 0;       // Group: 1-based index
    int min = 0;         // Repeat
    int max = kUnbounded;
    std::vector<Node> children;   // Group: the sequence inside; Repeat: the one repeated item
};

ByteSet rangeSet(unsigned char low, unsigned char high) {
    ByteSet set;
    for (int c = low; c <= high; ++c) set.set(static_cast<std::size_t>(c));
    return set;
}

ByteSet digitSet() { return rangeSet('0', '9'); }
ByteSet spaceSet() {
    ByteSet set;
    for (char c : {' ', '\f', '\n', '\r', '\t', '\v'}) set.set(static_cast<unsigned char>(c));
    return set;
}
ByteSet wordSet() { return rangeSet('a', 'z') | rangeSet('A', 'Z') | digitSet() | rangeSet('_', '_'); }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

struct ParseFailure {
    std::string message;
};

// The grammar accepted (a subset of ECMAScript's Pattern without alternatives):
//   sequence   -> item*
//   item       -> atom quantifier?      quantifier -> ('*' | '+' | '?') '?'?
//   atom       -> '(' sequence ')' | '[' '^'? classItem* ']' | '.' | '^' | '$' | escape | char
//   classItem  -> classAtom ('-' classAtom)?
class Parser {
public:
    Parser(std::string_view text, std::vector<ByteSet>& sets) : m_text(text), m_sets(sets) {}

    Node parseAll() {
        if (m_text.size() > kMaxRegexLength) fail("expression too long");
        Node root;
        root.kind = Node::Kind::Group;
        root.group = 0;
        parseSequence(root.children, 0);
        if (m_position < m_text.size()) fail("unbalanced ')'");
        return root;
    }

    int groupCount() const { return m_groupCount; }
    const std::vector<bool>& emptyGroups() const { return m_emptyGroups; }

private:
    [[noreturn]] void fail(const char* message) const { throw ParseFailure{message}; }

    bool atEnd() const { return m_position >= m_text.size(); }
    char peek() const { return m_text[m_position]; }

    // Single bytes share one entry each, so long literal text does not grow the table.
    int addSet(const ByteSet& set) {
        if (set.count() == 1) {
            int& shared = m_byteSets[Parser::onlyMember(set)];
            if (shared < 0) {
                m_sets.push_back(set);
                shared = static_cast<int>(m_sets.size() - 1);
            }
            return shared;
        }
        m_sets.push_back(set);
        return static_cast<int>(m_sets.size() - 1);
    }

    Node setNode(const ByteSet& set) {
        Node node;
        node.kind = Node::Kind::Set;
        node.set = addSet(set);
        return node;
    }

    void parseSequence(std::vector<Node>& out, int depth) {
        while (!atEnd() && peek() != ')') {
            Node atom = parseAtom(depth);
            if (!atEnd() && (peek() == '*' || peek() == '+' || peek() == '?')) {
                if (atom.kind == Node::Kind::Start || atom.kind == Node::Kind::End) fail("nothing to repeat");
                char quantifier = m_text[m_position++];
                Node repeat;
                repeat.kind = Node::Kind::Repeat;
                repeat.min = quantifier == '+' ? 1 : 0;
                repeat.max = quantifier == '?' ? 1 : kUnbounded;
                if (!atEnd() && peek() == '?') {
                    repeat.greedy = false;
                    ++m_position;
                }
                repeat.children.push_back(std::move(atom));
                out.push_back(std::move(repeat));
            } else {
                out.push_back(std::move(atom));
            }
        }
    }

    Node parseAtom(int depth) {
        char c = m_text[m_position++];
        switch (c) {
        case '(': {
            if (depth >= kMaxRegexNesting) fail("groups nested too deeply");
            if (!atEnd() && peek() == '?') fail("group modifiers are not supported");
            Node group;
            group.kind = Node::Kind::Group;
            group.group = ++m_groupCount;
            m_emptyGroups.push_back(!atEnd() && peek() == ')');
            parseSequence(group.children, depth + 1);
            if (atEnd()) fail("missing ')'");
            ++m_position;
            return group;
        }
        case '[': return setNode(parseBracket());
        case '.': return setNode(~(rangeSet('\n', '\n') | rangeSet('\r', '\r')));
        case '^': {
            Node node;
            node.kind = Node::Kind::Start;
            return node;
        }
        case '$': {
            Node node;
            node.kind = Node::Kind::End;
            return node;
        }
        case '\\': return setNode(parseEscape(false));
        case '*': case '+': case '?': fail("nothing to repeat");
        case '|': fail("alternatives are not supported");
        case '{': case '}': fail("counted repetition is not supported");
        case ']': fail("lone ']'");
        default: return setNode(rangeSet(static_cast<unsigned char>(c), static_cast<unsigned char>(c)));
        }
    }

    // After a backslash. Class escapes (\d \s \w and capitals) give several bytes; inside a
    // bracket "\b" is a backspace.
    ByteSet parseEscape(bool inBracket) {
        if (atEnd()) fail("'\\' at the end");
        char c = m_text[m_position++];
        auto single = [](unsigned char byte) { return rangeSet(byte, byte); };
        switch (c) {
        case 'd': return digitSet();
        case 'D': return ~digitSet();
        case 's': return spaceSet();
        case 'S': return ~spaceSet();
        case 'w': return wordSet();
        case 'W': return ~wordSet();
        case 'f': return single('\f');
        case 'n': return single('\n');
        case 'r': return single('\r');
        case 't': return single('\t');
        case 'v': return single('\v');
        case '0': return single('\0');
        case 'x': {
            if (m_position + 2 > m_text.size()) fail("incomplete \\x escape");
            int high = hexValue(m_text[m_position]);
            int low = hexValue(m_text[m_position + 1]);
            if (high < 0 || low < 0) fail("incomplete \\x escape");
            m_position += 2;
            return single(static_cast<unsigned char>(high * 16 + low));
        }
        case 'b':
            if (inBracket) return single('\b');
            fail("word boundaries are not supported");
        default:
            // Identity escapes are for syntax characters only; a letter or digit would be a
            // feature this engine does not have.
            if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
                fail("unsupported escape");
            }
            return single(static_cast<unsigned char>(c));
        }
    }

    // One class atom: its bytes, and whether it is a single byte (only those may bound a range).
    ByteSet parseClassAtom(bool& isSingle) {
        char c = m_text[m_position++];
        ByteSet set = c == '\\' ? parseEscape(true) : rangeSet(static_cast<unsigned char>(c), static_cast<unsigned char>(c));
        isSingle = set.count() == 1;
        return set;
    }

    static unsigned char onlyMember(const ByteSet& set) {
        for (int c = 0; c < 256; ++c) {
            if (set.test(static_cast<std::size_t>(c))) return static_cast<unsigned char>(c);
        }
        return 0;
    }

    // After '['. An empty "[]" matches nothing and "[^]" anything, as in ECMAScript.
    ByteSet parseBracket() {
        bool negated = !atEnd() && peek() == '^';
        if (negated) ++m_position;
        ByteSet members;
        while (true) {
            if (atEnd()) fail("missing ']'");
            if (peek() == ']') break;
            bool lowIsSingle = false;
            ByteSet low = parseClassAtom(lowIsSingle);
            if (m_position + 1 < m_text.size() && peek() == '-' && m_text[m_position + 1] != ']') {
                ++m_position;
                bool highIsSingle = false;
                ByteSet high = parseClassAtom(highIsSingle);
                if (!lowIsSingle || !highIsSingle) fail("class escape in a range");
                unsigned char from = onlyMember(low);
                unsigned char to = onlyMember(high);
                if (from > to) fail("range out of order");
                members |= rangeSet(from, to);
            } else {
                members |= low;
            }
        }
        ++m_position;
        return negated ? ~members : members;
    }

    std::string_view m_text;
    std::vector<ByteSet>& m_sets;
    std::size_t m_position = 0;
    int m_groupCount = 0;
    std::vector<bool> m_emptyGroups;
    std::array<int, 256> m_byteSets = filledWith(-1);

    static std::array<int, 256> filledWith(int value) {
        std::array<int, 256> values{};
        values.fill(value);
        return values;
    }
};

// ---- program ----

enum class Op : std::uint8_t {
    Set,          // one byte of set `a`
    Byte,         // the byte `a`
    RepeatSet,    // set `a` repeated min..max times (max -1: unbounded), greedy or lazy
    Save,         // slot `a` = position
    AssertStart,  // position is where the search began
    AssertEnd,    // position is the subject's end
    LoopInit,     // a quantified group: counter `a` = 0
    LoopHead,     // decide: another iteration of the body (at this + 1) or leave (to `target`)
    LoopEnter,    // counter `a` += 1, iteration start = position, groups [min, max) unset
    LoopTail,     // after the body: an empty iteration past the minimum fails; back to `target`
    Match,
};

struct Instruction {
    Op op = Op::Match;
    bool greedy = true;
    std::int32_t a = 0;
    std::int32_t min = 0;
    std::int32_t max = 0;
    std::int32_t target = 0;
};

// A saved alternative. The kind sits in the top bits of `pcAndKind`.
struct Frame {
    std::uint32_t pcAndKind = 0;
    std::uint32_t first = 0;
    std::uint32_t second = 0;
};

enum FrameKind : std::uint32_t {
    kChoice = 0u << 28,       // resume at pc, position first
    kUndo = 1u << 28,         // restore slot pc to the value first
    kGreedyRepeat = 2u << 28, // give back one byte: positions first (current) down to second (lowest)
    kLazyRepeat = 3u << 28,   // take one more byte: position first, count second
};
constexpr std::uint32_t kKindMask = 0xF0000000u;
constexpr std::uint32_t kPcMask = 0x0FFFFFFFu;

} // namespace

class RegexProgram {
public:
    std::vector<Instruction> code;
    std::vector<ByteSet> sets;
    std::vector<bool> emptyGroups;  // index 0 is group 1
    int groupCount = 0;
    int slotCount = 0;              // 2 per group (with group 0), then 2 per quantified group
    bool anchored = false;          // begins with "^": only the search's start can match
    bool hasFirstBytes = false;     // every match begins with a byte of firstBytes
    ByteSet firstBytes;
};

namespace {

// Whether the node can match without consuming, and which bytes can begin a match of it.
bool nodeCanBeEmpty(const Node& node, const std::vector<ByteSet>& sets, ByteSet& first);

bool sequenceCanBeEmpty(const std::vector<Node>& sequence, const std::vector<ByteSet>& sets, ByteSet& first) {
    for (const Node& node : sequence) {
        if (!nodeCanBeEmpty(node, sets, first)) return false;
    }
    return true;
}

bool nodeCanBeEmpty(const Node& node, const std::vector<ByteSet>& sets, ByteSet& first) {
    switch (node.kind) {
    case Node::Kind::Set: first |= sets[static_cast<std::size_t>(node.set)]; return false;
    case Node::Kind::Start: case Node::Kind::End: return true;
    case Node::Kind::Group: return sequenceCanBeEmpty(node.children, sets, first);
    case Node::Kind::Repeat: return nodeCanBeEmpty(node.children[0], sets, first) || node.min == 0;
    }
    return true;
}

int highestGroupIn(const Node& node) {
    int highest = node.kind == Node::Kind::Group ? node.group : 0;
    for (const Node& child : node.children) highest = std::max(highest, highestGroupIn(child));
    return highest;
}

int lowestGroupIn(const Node& node) {
    if (node.kind == Node::Kind::Group) return node.group;
    for (const Node& child : node.children) {
        int lowest = lowestGroupIn(child);
        if (lowest > 0) return lowest;
    }
    return 0;
}

class Compiler {
public:
    explicit Compiler(RegexProgram& program) : m_program(program) {}

    void emitSequence(const std::vector<Node>& sequence) {
        for (const Node& node : sequence) emitNode(node);
    }

    void emitNode(const Node& node) {
        switch (node.kind) {
        case Node::Kind::Set: {
            const ByteSet& set = m_program.sets[static_cast<std::size_t>(node.set)];
            if (set.count() == 1) {
                emit({Op::Byte, true, singleByte(set), 0, 0, 0});
            } else {
                emit({Op::Set, true, node.set, 0, 0, 0});
            }
            break;
        }
        case Node::Kind::Start: emit({Op::AssertStart, true, 0, 0, 0, 0}); break;
        case Node::Kind::End: emit({Op::AssertEnd, true, 0, 0, 0, 0}); break;
        case Node::Kind::Group:
            emit({Op::Save, true, node.group * 2, 0, 0, 0});
            emitSequence(node.children);
            emit({Op::Save, true, node.group * 2 + 1, 0, 0, 0});
            break;
        case Node::Kind::Repeat: emitRepeat(node); break;
        }
    }

private:
    static std::int32_t singleByte(const ByteSet& set) {
        for (int c = 0; c < 256; ++c) {
            if (set.test(static_cast<std::size_t>(c))) return c;
        }
        return 0;
    }

    std::int32_t emit(const Instruction& instruction) {
        m_program.code.push_back(instruction);
        return static_cast<std::int32_t>(m_program.code.size() - 1);
    }

    void emitRepeat(const Node& node) {
        const Node& body = node.children[0];
        if (body.kind == Node::Kind::Set) {
            emit({Op::RepeatSet, node.greedy, body.set, node.min, node.max, 0});
            return;
        }
        // Two slots of the quantified group: its iteration count and where the iteration began.
        std::int32_t counter = m_program.slotCount;
        m_program.slotCount += 2;
        int firstGroup = lowestGroupIn(body);
        int lastGroup = highestGroupIn(body);
        emit({Op::LoopInit, true, counter, 0, 0, 0});
        std::int32_t head = emit({Op::LoopHead, node.greedy, counter, node.min, node.max, 0});
        emit({Op::LoopEnter, true, counter, firstGroup, firstGroup == 0 ? 0 : lastGroup + 1, 0});
        emitNode(body);
        emit({Op::LoopTail, true, counter, node.min, node.max, head});
        m_program.code[static_cast<std::size_t>(head)].target = static_cast<std::int32_t>(m_program.code.size());
    }

    RegexProgram& m_program;
};

// The scratch state of one search. Reused by the thread's searches to avoid allocating.
struct SearchState {
    std::vector<Frame> frames;
    std::vector<std::uint32_t> slots;
};

class Searcher {
public:
    Searcher(const RegexProgram& program, std::string_view subject, std::uint32_t from, const RegexBudget& budget,
             SearchState& state)
        : m_program(program), m_code(program.code.data()), m_subject(reinterpret_cast<const unsigned char*>(subject.data())),
          m_length(static_cast<std::uint32_t>(subject.size())), m_from(from), m_budget(budget), m_frames(state.frames),
          m_slots(state.slots) {
        m_frames.clear();
        m_slots.assign(static_cast<std::size_t>(program.slotCount), kUnsetSlot);
    }

    RegexOutcome search(RegexSpans& spans) {
        for (std::uint32_t start = m_from; start <= m_length; ++start) {
            if (m_program.hasFirstBytes && !m_program.anchored) {
                start = nextCandidate(start);
                if (start >= m_length) return RegexOutcome::NotFound;
            }
            if (!countStep()) return RegexOutcome::TooComplex;
            RegexOutcome outcome = attempt(start);
            if (outcome != RegexOutcome::NotFound) {
                if (outcome == RegexOutcome::Matched) fillSpans(start, spans);
                return outcome;
            }
            if (m_program.anchored) break;
        }
        return RegexOutcome::NotFound;
    }

private:
    // The first position at or after `start` whose byte can begin a match (m_length if none).
    std::uint32_t nextCandidate(std::uint32_t start) const {
        const ByteSet& first = m_program.firstBytes;
        if (first.count() == 1) {
            int byte = 0;
            while (!first.test(static_cast<std::size_t>(byte))) ++byte;
            const void* found = start < m_length ? std::memchr(m_subject + start, byte, m_length - start) : nullptr;
            return found ? static_cast<std::uint32_t>(static_cast<const unsigned char*>(found) - m_subject) : m_length;
        }
        while (start < m_length && !first.test(m_subject[start])) ++start;
        return start;
    }

    // Bulk scans add to m_steps directly, so a block may be passed between two calls.
    bool countStep() {
        ++m_steps;
        while (m_steps >= m_nextBlock) {
            m_nextBlock += 4096;
            if (m_budget.onBlock) m_budget.onBlock(m_budget.context);
        }
        return m_steps <= m_budget.stepLimit;
    }

    bool push(std::uint32_t pcAndKind, std::uint32_t first, std::uint32_t second) {
        if (m_frames.size() >= kMaxRegexFrames) return false;
        m_frames.push_back({pcAndKind, first, second});
        return true;
    }

    bool setSlot(std::int32_t slot, std::uint32_t value) {
        std::uint32_t& target = m_slots[static_cast<std::size_t>(slot)];
        if (target == value) return true;
        if (!push(kUndo | static_cast<std::uint32_t>(slot), target, 0)) return false;
        target = value;
        return true;
    }

    bool inSet(std::int32_t set, std::uint32_t position) const {
        return position < m_length && m_program.sets[static_cast<std::size_t>(set)].test(m_subject[position]);
    }

    void fillSpans(std::uint32_t start, RegexSpans& spans) const {
        std::size_t groups = static_cast<std::size_t>(m_program.groupCount) + 1;
        spans.starts.assign(groups, RegexSpans::kUnset);
        spans.ends.assign(groups, RegexSpans::kUnset);
        spans.starts[0] = start;
        spans.ends[0] = m_matchEnd;
        for (std::size_t group = 1; group < groups; ++group) {
            std::uint32_t from = m_slots[group * 2];
            std::uint32_t to = m_slots[group * 2 + 1];
            if (from == kUnsetSlot || to == kUnsetSlot) continue;
            spans.starts[group] = from;
            spans.ends[group] = to;
        }
    }

    // Runs the program from `start`. On failure every slot is back to unset, since each change
    // was undone on the way back.
    RegexOutcome attempt(std::uint32_t start) {
        std::uint32_t pc = 0;
        std::uint32_t position = start;
        while (true) {
            if (!countStep()) return RegexOutcome::TooComplex;
            const Instruction& instruction = m_code[pc];
            bool ok = true;
            switch (instruction.op) {
            case Op::Byte:
                ok = position < m_length && m_subject[position] == static_cast<unsigned char>(instruction.a);
                ++position;
                ++pc;
                break;
            case Op::Set:
                ok = inSet(instruction.a, position);
                ++position;
                ++pc;
                break;
            case Op::RepeatSet: {
                const ByteSet& set = m_program.sets[static_cast<std::size_t>(instruction.a)];
                for (std::int32_t i = 0; i < instruction.min && ok; ++i) {
                    ok = position < m_length && set.test(m_subject[position]);
                    ++position;
                }
                if (!ok) break;
                std::uint32_t low = position;
                if (instruction.greedy) {
                    std::uint32_t limit = instruction.max == kUnbounded
                        ? m_length
                        : std::min<std::uint32_t>(m_length, low + static_cast<std::uint32_t>(instruction.max - instruction.min));
                    if (set.all()) {
                        position = std::max(position, limit);
                    } else {
                        while (position < limit && set.test(m_subject[position])) ++position;
                    }
                    m_steps += (position - low) / 16;
                    if (position > low && !push(kGreedyRepeat | pc, position, low)) return RegexOutcome::TooComplex;
                } else if (instruction.max == kUnbounded || instruction.min < instruction.max) {
                    if (!push(kLazyRepeat | pc, position, static_cast<std::uint32_t>(instruction.min))) {
                        return RegexOutcome::TooComplex;
                    }
                }
                ++pc;
                break;
            }
            case Op::Save:
                ok = setSlot(instruction.a, position);
                if (!ok) return RegexOutcome::TooComplex;
                ++pc;
                break;
            case Op::AssertStart:
                ok = position == m_from;
                ++pc;
                break;
            case Op::AssertEnd:
                ok = position == m_length;
                ++pc;
                break;
            case Op::LoopInit:
                if (!setSlot(instruction.a, 0)) return RegexOutcome::TooComplex;
                ++pc;
                break;
            case Op::LoopHead: {
                std::uint32_t count = m_slots[static_cast<std::size_t>(instruction.a)];
                if (instruction.max != kUnbounded && count >= static_cast<std::uint32_t>(instruction.max)) {
                    pc = static_cast<std::uint32_t>(instruction.target);
                } else if (count < static_cast<std::uint32_t>(instruction.min)) {
                    ++pc;
                } else if (instruction.greedy) {
                    if (!push(kChoice | static_cast<std::uint32_t>(instruction.target), position, 0)) {
                        return RegexOutcome::TooComplex;
                    }
                    ++pc;
                } else {
                    if (!push(kChoice | (pc + 1), position, 0)) return RegexOutcome::TooComplex;
                    pc = static_cast<std::uint32_t>(instruction.target);
                }
                break;
            }
            case Op::LoopEnter: {
                auto counter = static_cast<std::size_t>(instruction.a);
                if (!setSlot(instruction.a, m_slots[counter] + 1) || !setSlot(instruction.a + 1, position)) {
                    return RegexOutcome::TooComplex;
                }
                // Each iteration starts with the body's groups unset, so a group that takes no
                // part in the last iteration reports nothing.
                for (std::int32_t group = instruction.min; group < instruction.max; ++group) {
                    if (!setSlot(group * 2, kUnsetSlot) || !setSlot(group * 2 + 1, kUnsetSlot)) {
                        return RegexOutcome::TooComplex;
                    }
                }
                ++pc;
                break;
            }
            case Op::LoopTail: {
                auto counter = static_cast<std::size_t>(instruction.a);
                // An iteration past the required ones that consumed nothing cannot repeat for
                // ever: it fails, and the alternative (leaving the loop) is taken instead.
                ok = !(m_slots[counter] > static_cast<std::uint32_t>(instruction.min) && m_slots[counter + 1] == position);
                pc = static_cast<std::uint32_t>(instruction.target);
                break;
            }
            case Op::Match:
                m_matchEnd = position;
                return RegexOutcome::Matched;
            }
            if (ok) continue;
            // Back to the latest alternative, undoing what happened after it.
            while (true) {
                if (m_frames.empty()) return RegexOutcome::NotFound;
                if (!countStep()) return RegexOutcome::TooComplex;
                Frame frame = m_frames.back();
                m_frames.pop_back();
                std::uint32_t framePc = frame.pcAndKind & kPcMask;
                std::uint32_t kind = frame.pcAndKind & kKindMask;
                if (kind == kUndo) {
                    m_slots[framePc] = frame.first;
                    continue;
                }
                if (kind == kChoice) {
                    pc = framePc;
                    position = frame.first;
                    break;
                }
                const Instruction& repeat = m_code[framePc];
                const ByteSet& set = m_program.sets[static_cast<std::size_t>(repeat.a)];
                if (kind == kGreedyRepeat) {
                    position = frame.first - 1;
                    if (position > frame.second) m_frames.push_back({frame.pcAndKind, position, frame.second});
                    pc = framePc + 1;
                    break;
                }
                // A lazy repetition takes one more byte when it may.
                std::uint32_t count = frame.second;
                if (frame.first < m_length && set.test(m_subject[frame.first]) &&
                    (repeat.max == kUnbounded || count < static_cast<std::uint32_t>(repeat.max))) {
                    position = frame.first + 1;
                    m_frames.push_back({frame.pcAndKind, position, count + 1});
                    pc = framePc + 1;
                    break;
                }
            }
        }
    }

    const RegexProgram& m_program;
    const Instruction* m_code;
    const unsigned char* m_subject;
    std::uint32_t m_length;
    std::uint32_t m_from;
    const RegexBudget& m_budget;
    std::vector<Frame>& m_frames;
    std::vector<std::uint32_t>& m_slots;
    std::size_t m_steps = 0;
    std::size_t m_nextBlock = 4096;
    std::uint32_t m_matchEnd = 0;
};

} // namespace

std::shared_ptr<const RegexProgram> compileRegex(std::string_view text, RegexSyntaxError& error) {
    auto program = std::make_shared<RegexProgram>();
    Node root;
    try {
        Parser parser(text, program->sets);
        root = parser.parseAll();
        program->groupCount = parser.groupCount();
        program->emptyGroups = parser.emptyGroups();
    } catch (const ParseFailure& failure) {
        error.message = failure.message;
        return nullptr;
    }
    program->slotCount = (program->groupCount + 1) * 2;
    Compiler compiler(*program);
    compiler.emitSequence(root.children);
    program->code.push_back({Op::Match, true, 0, 0, 0, 0});
    program->anchored = !root.children.empty() && root.children[0].kind == Node::Kind::Start;
    ByteSet first;
    program->hasFirstBytes = !sequenceCanBeEmpty(root.children, program->sets, first);
    program->firstBytes = first;
    if (program->code.size() > kPcMask) {
        error.message = "pattern too long";
        return nullptr;
    }
    return program;
}

RegexOutcome searchRegex(const RegexProgram& program, std::string_view subject, std::size_t from, const RegexBudget& budget,
                         RegexSpans& spans) {
    // Positions are 32-bit in the stack frames; subjects are far below that.
    if (subject.size() >= kUnsetSlot) return RegexOutcome::TooComplex;
    if (from > subject.size()) return RegexOutcome::NotFound;
    thread_local SearchState state;
    // A search that needed a large stack gives the memory back when it ends, however it ends
    // (the budget callback may throw).
    struct Trim {
        SearchState& state;
        ~Trim() {
            if (state.frames.capacity() > kRetainedFrames) {
                state.frames.clear();
                state.frames.shrink_to_fit();
            }
        }
    } trim{state};
    Searcher searcher(program, subject, static_cast<std::uint32_t>(from), budget, state);
    return searcher.search(spans);
}

int regexGroupCount(const RegexProgram& program) { return program.groupCount; }

bool regexGroupIsEmpty(const RegexProgram& program, int index) {
    return index >= 1 && index <= program.groupCount && program.emptyGroups[static_cast<std::size_t>(index - 1)];
}

} // namespace korvel::lua
