// random and math.random, math.randomSeed, kill, the utf8 and os groups, and package.
#include "core/library_internal.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>

namespace korvel {

namespace {

// A seed from /dev/urandom where it can be read, else from the clock.
std::uint32_t freshSeed() {
    std::ifstream device("/dev/urandom", std::ios::binary);
    std::uint32_t seed = 0;
    if (device && device.read(reinterpret_cast<char*>(&seed), sizeof seed)) return seed;
    return static_cast<std::uint32_t>(std::chrono::high_resolution_clock::now().time_since_epoch().count());
}

bool isContinuationByte(unsigned char c) { return (c & 0xC0) == 0x80; }

}  // namespace

void Interpreter::registerSystemLibrary() {
    Library lib(*this);
    random.seed(freshSeed());
    NativeFunction randomFunction = [this](const Args& args) -> Variable {
        switch (args.size()) {
        case 0: return Variable(std::uniform_real_distribution<double>(0.0, 1.0)(random) * 0.99999994);
        case 1: {
            if (args[0].type() != VarType::Int) throw ScriptError("random function with one argument requires an integer");
            if (args[0].asInt() < 1) throw ScriptError("random function requires a positive maximum value");
            return Variable(std::uniform_int_distribution<std::int32_t>(1, args[0].asInt())(random));
        }
        case 2: {
            if (args[0].type() != VarType::Int || args[1].type() != VarType::Int)
                throw ScriptError("random function with two arguments requires integers");
            if (args[0].asInt() > args[1].asInt()) throw ScriptError("random function requires min <= max");
            return Variable(std::uniform_int_distribution<std::int32_t>(args[0].asInt(), args[1].asInt())(random));
        }
        default: throw ScriptError("random function takes 0, 1, or 2 arguments");
        }
    };
    lib.global("random", randomFunction);
    Variable math = lib.group("math");
    lib.member(math, "math", "random", randomFunction);
    lib.member(math, "math", "randomSeed", [this](const Args& args) {
        if (args.size() != 1 || !args[0].isNumericLike()) throw ScriptError("math['randomSeed'](seed) requires exactly 1 argument");
        random.seed(static_cast<std::uint32_t>(toInt(args[0])));
        return Variable();
    });
    lib.global("kill", [](const Args& args) -> Variable {
        if (!args.empty()) throw ScriptError("kill() takes no arguments");
        throw KillRequest{};
    });

    Variable utf8 = lib.group("utf8");
    lib.builtin(BuiltinId::Utf8Len, utf8, "utf8", "len", [](Interpreter&, Arguments args) {
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("utf8['len'](s) requires exactly 1 string argument");
        std::int32_t count = 0;
        for (unsigned char c : args[0].asString())
            if (!isContinuationByte(c)) ++count;
        return Variable(count);
    });
    lib.member(utf8, "utf8", "offset", [](const Args& args) {
        if (args.size() < 2 || args.size() > 3 || args[0].type() != VarType::String || args[1].type() != VarType::Int ||
            (args.size() == 3 && args[2].type() != VarType::Int))
            throw ScriptError("utf8['offset'](s, n[, i]) requires a string and a codepoint index");
        const std::string& s = args[0].asString();
        auto length = static_cast<std::int64_t>(s.size());
        std::int64_t n = args[1].asInt();
        std::int64_t i = args.size() == 3 ? args[2].asInt() : (n >= 0 ? 1 : length + 1);
        if (i < 0) i = length + i + 1;
        if (i < 1 || i > length + 1) return Variable();
        std::int64_t p = i - 1;  // 0-based
        auto continuation = [&](std::int64_t at) {
            return at < length && isContinuationByte(static_cast<unsigned char>(s[static_cast<std::size_t>(at)]));
        };
        if (n == 0) {
            while (p > 0 && continuation(p)) --p;
            return Variable(static_cast<std::int32_t>(p + 1));
        }
        if (continuation(p)) return Variable();  // i must start a character
        if (n > 0) {
            for (--n; n > 0 && p < length; --n) {
                ++p;
                while (continuation(p)) ++p;
            }
        } else {
            for (; n < 0 && p > 0; ++n) {
                --p;
                while (p > 0 && continuation(p)) --p;
            }
        }
        if (n != 0) return Variable();
        return Variable(static_cast<std::int32_t>(p + 1));
    });

    Variable os = lib.group("os");
    lib.member(os, "os", "clock", [](const Args& args) {
        if (!args.empty()) throw ScriptError("os['clock']() takes no arguments");
        return Variable(static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
    });
    lib.member(os, "os", "time", [](const Args& args) {
        if (!args.empty()) throw ScriptError("os['time']() takes no arguments");
        return Variable(static_cast<std::int32_t>(std::time(nullptr)));
    });
    lib.member(os, "os", "remove", [this](const Args& args) {
        requireUnsandboxed("os['remove']");
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("os['remove'](path) requires exactly one path string");
        std::string path = KorvelScript::normalisePath(args[0].asString());
        if (std::remove(path.c_str()) == 0) return Variable(true);
        return Variable::makeMulti(std::vector<Variable>{Variable(false), Variable("cannot remove " + path)});
    });

    Variable package = lib.group("package");
    package.table().set("path", Variable("./?.ks;scripts/?.ks"));
    package.table().set("cpath", Variable(""));
}

}  // namespace korvel
