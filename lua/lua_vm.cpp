// LuaVM: the public run operations, global access, host function binding and the conversions
// between internal values and LuaValue. Errors thrown inside are caught here, once.
#include "vm_internal.h"

#include "collector_internal.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <new>
#include <sstream>
#include <stdexcept>

#ifdef __linux__
#include <pthread.h>
#endif

namespace korvel::lua {

namespace {

// Value slots of the stack: arguments and locals of every active call. The block is reserved once
// (zero pages cost nothing until touched) so that spans into it never move.
constexpr std::size_t kStackSlots = std::size_t{1} << 18;
// Room left below the recursion limit for library code (sorting, formatting, matching).
constexpr std::size_t kNativeStackMargin = std::size_t{256} << 10;
// Conversion to LuaValue recurses per nesting level; a table that contains itself stops here.
constexpr int kMaxConversionDepth = 200;

// Lowest address the evaluator may reach on this thread before it reports "stack overflow".
const char* threadStackLimit() {
    thread_local const char* limit = nullptr;
    thread_local bool known = false;
    if (known) return limit;
    known = true;
#ifdef __linux__
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        void* address = nullptr;
        std::size_t size = 0;
        if (pthread_attr_getstack(&attributes, &address, &size) == 0 && size > 2 * kNativeStackMargin) {
            limit = static_cast<const char*>(address) + kNativeStackMargin;
        }
        pthread_attr_destroy(&attributes);
    }
#endif
    return limit;
}

} // namespace

LuaVM::Impl::Impl(LuaVM& owner) : m_owner(&owner), m_random(std::random_device{}()) {
    m_stack = static_cast<Value*>(std::calloc(kStackSlots, sizeof(Value)));
    if (!m_stack) throw std::bad_alloc();
    m_stackCapacity = kStackSlots;
    bindDefaults();
}

LuaVM::Impl::~Impl() {
    popTo(0);
    m_returns.clear();
    // Globals go first, so cycles that hung off them become collectable.
    for (Value& global : m_globals.values()) global = Value();
    m_stringLibraryValue = Value();
    collectCycles();
    std::free(m_stack);
}

void LuaVM::Impl::resetAfterRun(std::size_t savedTop) {
    popTo(savedTop);
    m_returns.clear();
}

LuaValue LuaVM::Impl::runChunk(std::shared_ptr<Chunk> chunk) {
    bool outermost = m_nativeStackBase == nullptr;
    std::size_t savedTop = m_top;
    const FunctionExpr* savedFunction = m_currentFunction;
    if (outermost) {
        m_nativeStackBase = static_cast<const char*>(__builtin_frame_address(0));
        m_stepsLeft = m_stepBudget == 0 ? ~std::uint64_t{0} : m_stepBudget + 1;
        m_activeStackBudget = effectiveStackBudget(*this);
    }
    struct Restore {
        Impl& vm;
        bool outermost;
        std::size_t top;
        const FunctionExpr* function;
        ~Restore() {
            vm.resetAfterRun(top);
            vm.m_currentFunction = function;
            if (outermost) {
                vm.m_nativeStackBase = nullptr;
                if (collectionDue()) collectCycles();
            }
        }
    } restore{*this, outermost, savedTop, savedFunction};

    auto* main = new FunctionObject();
    Value mainValue = Value::object(main);
    main->name = "main chunk";
    main->proto = chunk->main;
    main->chunk = chunk;
    main->owner = this;
    callScript(main, m_top, 0);
    if (m_returns.empty()) return LuaValue();
    if (m_returns.size() == 1) return valueToPublic(m_returns[0]);
    auto* table = new Table();
    Value tableValue = Value::object(table);
    for (std::size_t i = 0; i < m_returns.size(); ++i) table->append(m_returns[i]);
    return valueToPublic(tableValue);
}

Value LuaVM::Impl::publicToValue(const LuaValue& value, int depth) {
    if (depth > kMaxConversionDepth) throw std::runtime_error("value is nested too deeply for KorvelLua");
    switch (value.type()) {
    case LuaValueType::Nil: return Value();
    case LuaValueType::Integer: return Value::integer(value.asInteger());
    case LuaValueType::Float: return Value::number(value.asFloat());
    case LuaValueType::Boolean: return Value::boolean(value.asBoolean());
    case LuaValueType::String: return Value::string(value.asString());
    case LuaValueType::Array: {
        auto* table = new Table();
        Value result = Value::object(table);
        for (const LuaValue& element : value.asArray()) table->append(publicToValue(element, depth + 1));
        return result;
    }
    case LuaValueType::Map: {
        auto* table = new Table();
        Value result = Value::object(table);
        for (const auto& [key, element] : value.asMap()) table->set(Value::string(key), publicToValue(element, depth + 1));
        return result;
    }
    case LuaValueType::Function: {
        const auto& handle = value.asFunction();
        if (!handle) return Value();
        if (handle->function.kind() == Kind::Function && handle->function.asFunction()->owner != this) {
            throw std::runtime_error("function belongs to another KorvelLua VM");
        }
        return handle->function;
    }
    }
    throw std::runtime_error("unsupported KorvelLua value");
}

LuaValue LuaVM::Impl::valueToPublic(const Value& value, int depth) {
    if (depth > kMaxConversionDepth) throw std::runtime_error("value is nested too deeply to leave KorvelLua");
    switch (value.kind()) {
    case Kind::Nil: return LuaValue();
    case Kind::Integer: return LuaValue(static_cast<std::int64_t>(value.asInteger()));
    case Kind::Float: return LuaValue(value.asFloat());
    case Kind::Boolean: return LuaValue(value.asBoolean());
    case Kind::String: return LuaValue(std::string(value.stringView()));
    case Kind::Table: {
        Table* table = value.asTable();
        std::int64_t length = table->sequenceLength();
        if (static_cast<std::size_t>(length) == table->entryCount()) {
            LuaValue::Array array;
            array.reserve(static_cast<std::size_t>(length));
            for (std::int64_t i = 1; i <= length; ++i) {
                const Value* element = table->findInteger(i);
                array.push_back(valueToPublic(element ? *element : Value(), depth + 1));
            }
            return LuaValue(std::move(array));
        }
        LuaValue::Map map;
        std::size_t position = 0;
        Value key, element;
        while (table->nextEntry(position, key, element)) {
            map[key.toString()] = valueToPublic(element, depth + 1);
        }
        return LuaValue(std::move(map));
    }
    case Kind::Function: {
        auto handle = std::make_shared<LuaFunctionHandle>();
        handle->function = value;
        handle->name = value.asFunction()->name;
        return LuaValue(std::move(handle));
    }
    case Kind::UserData:
    case Kind::Iterator: throw std::runtime_error("value cannot be bridged out of KorvelLua");
    default: throw std::runtime_error("unsupported KorvelLua value");
    }
}

// ---- LuaVM ----

LuaVM::LuaVM() : m_impl(std::make_unique<Impl>(*this)) {}
LuaVM::~LuaVM() = default;
LuaVM::LuaVM(LuaVM&& other) noexcept : m_impl(std::move(other.m_impl)) {
    if (m_impl) m_impl->m_owner = this;
}
LuaVM& LuaVM::operator=(LuaVM&& other) noexcept {
    m_impl = std::move(other.m_impl);
    if (m_impl) m_impl->m_owner = this;
    return *this;
}

namespace {

template <typename Body> LuaResult guardedRun(LuaVM::Impl& vm, Body&& body) {
    (void)vm;
    try {
        return LuaResult::ok(body());
    } catch (const LuaError& error) {
        return LuaResult::failure(error.message());
    } catch (const ExitSignal&) {
        return LuaResult::ok(LuaValue());
    } catch (const StepBudgetSignal&) {
        return LuaResult::failure("step budget exhausted");
    } catch (const std::bad_alloc&) {
        return LuaResult::failure("not enough memory");
    } catch (const std::exception& error) {
        return LuaResult::failure(error.what());
    }
}

bool readWholeFile(const std::string& path, std::string& contents) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::ostringstream buffer;
    buffer << file.rdbuf();
    contents = buffer.str();
    return true;
}

} // namespace

LuaResult LuaVM::runScriptString(std::string_view source, std::string_view chunkName) {
    Impl& vm = *m_impl;
    return guardedRun(vm, [&] { return vm.runChunk(parseScript(source, chunkName, vm.m_globals)); });
}

LuaResult LuaVM::runScriptFile(const std::string& path) {
    std::string source;
    if (!readWholeFile(path, source)) return LuaResult::failure("unable to open script file: " + path);
    return runScriptString(source, path);
}

void LuaVM::setGlobal(const std::string& name, const LuaValue& value) {
    Impl& vm = *m_impl;
    Value converted = vm.publicToValue(value);
    vm.m_globals.at(vm.m_globals.resolveGlobalSlot(name)) = std::move(converted);
}

bool LuaVM::getGlobal(const std::string& name, LuaValue& value) {
    Impl& vm = *m_impl;
    long long slot = vm.m_globals.findGlobalSlot(name);
    if (slot < 0 || vm.m_globals.at(static_cast<std::uint32_t>(slot)).isNil()) return false;
    value = vm.valueToPublic(vm.m_globals.at(static_cast<std::uint32_t>(slot)));
    return true;
}

void LuaVM::bindFunction(const std::string& name, LuaHostFunction function) {
    m_impl->bindHostFunction(name, std::move(function));
}

void LuaVM::Impl::bindHostFunction(const std::string& name, LuaHostFunction function) {
    Impl& vm = *this;
    NativeFunction native = [function = std::move(function)](Impl& self, ValueSpan arguments, std::uint32_t) {
        std::vector<LuaValue> converted;
        converted.reserve(arguments.size());
        for (const Value& argument : arguments) converted.push_back(self.valueToPublic(argument));
        LuaValue result = function(*self.m_owner, converted);
        return MultiValue(self.publicToValue(result));
    };
    vm.bindNativeGlobal(name, std::move(native));
}

void LuaVM::setStepBudget(std::uint64_t steps) { m_impl->m_stepBudget = steps; }
void LuaVM::setNativeStackBudget(std::size_t bytes) { m_impl->m_nativeStackBudget = bytes; }

std::string LuaVM::valueToString(const LuaValue& value) { return value.toString(); }

// Decides, at the start of each outermost run, how deep the evaluator may recurse.
std::size_t effectiveStackBudget(const LuaVM::Impl& vm) {
    if (vm.m_nativeStackBudget != 0) return vm.m_nativeStackBudget;
    // An unlimited stack rlimit makes the reported size meaningless; past 64 MiB we stop trusting it.
    constexpr std::size_t kLargestBudget = std::size_t{64} << 20;
    const char* limit = threadStackLimit();
    if (limit && vm.m_nativeStackBase > limit) {
        return std::min(static_cast<std::size_t>(vm.m_nativeStackBase - limit), kLargestBudget);
    }
    return std::size_t{1} << 20;
}

LuaResult runLuaScriptString(LuaVM& vm, std::string_view source, std::string_view chunkName) {
    return vm.runScriptString(source, chunkName);
}
LuaResult runLuaScriptFile(LuaVM& vm, const std::string& path) { return vm.runScriptFile(path); }
LuaResult runLuaBytecode(LuaVM& vm, const LuaBytecode& image) { return vm.runBytecode(image); }
LuaResult runLuaScriptFromBytecodeFile(LuaVM& vm, const std::string& path) { return vm.runScriptFromBytecodeFile(path); }
LuaResult runLuaBytecodeFile(LuaVM& vm, const std::string& path) { return vm.runBytecodeFile(path); }
void bindCppFunctionToLuaVM(LuaVM& vm, const std::string& name, LuaHostFunction function) {
    vm.bindFunction(name, std::move(function));
}

} // namespace korvel::lua
