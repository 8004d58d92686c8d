// The cycle collector. Reference counting frees everything but cycles (a table that holds
// itself, parents and children that point at each other). Every container is on one list;
// a collection subtracts the references containers make to each other from their counts.
// What still has references left is held from outside (globals, frames, the host) and stays,
// with everything it reaches; the rest is garbage kept alive only by its own cycles, and is
// emptied, which frees it.
#include "core/table.h"
#include "core/variable.h"

#include <vector>

namespace korvel {

bool g_collectionDue = false;

namespace {

TrackedObject* g_head = nullptr;
std::size_t g_tracked = 0;
std::size_t g_threshold = 10000;
bool g_collecting = false;

template <typename Visit>
void forEachChild(TrackedObject* object, Visit visit) {
    auto visitValue = [&](const Variable& v) {
        VarType t = v.type();
        if (t == VarType::Array || t == VarType::Table || t == VarType::MultiValue)
            visit(static_cast<TrackedObject*>(const_cast<HeapObject*>(static_cast<const HeapObject*>(v.identity()))));
    };
    switch (object->gcType) {
    case VarType::Array:
        for (const Variable& v : static_cast<ArrayObject*>(object)->items) visitValue(v);
        break;
    case VarType::MultiValue:
        for (const Variable& v : static_cast<MultiResult*>(object)->values) visitValue(v);
        break;
    case VarType::Table:
        for (const Table::Entry& e : static_cast<TableObject*>(object)->table.entries())
            if (e.key) visitValue(e.value);
        break;
    default: break;
    }
}

}  // namespace

TrackedObject::TrackedObject(VarType type) noexcept : gcType(type) {
    gcNext = g_head;
    if (g_head) g_head->gcPrevious = this;
    g_head = this;
    if (++g_tracked > g_threshold) g_collectionDue = true;
}

TrackedObject::~TrackedObject() {
    if (gcPrevious) gcPrevious->gcNext = gcNext;
    else g_head = gcNext;
    if (gcNext) gcNext->gcPrevious = gcPrevious;
    --g_tracked;
}

std::size_t collectCycles() {
    g_collectionDue = false;
    if (g_collecting) return 0;
    g_collecting = true;
    // 1. Count the references each container gets from other containers.
    for (TrackedObject* o = g_head; o; o = o->gcNext) o->gcRefs = o->refCount;
    for (TrackedObject* o = g_head; o; o = o->gcNext)
        forEachChild(o, [](TrackedObject* child) { --child->gcRefs; });
    // 2. Containers with references from outside, and all they reach, survive. Survivors are
    //    marked with the largest count so the walk visits each once.
    constexpr std::uint32_t kReachable = 0xffffffffu;
    std::vector<TrackedObject*> work;
    for (TrackedObject* o = g_head; o; o = o->gcNext)
        if (o->gcRefs > 0 && o->gcRefs != kReachable) {
            o->gcRefs = kReachable;
            work.push_back(o);
            while (!work.empty()) {
                TrackedObject* next = work.back();
                work.pop_back();
                forEachChild(next, [&](TrackedObject* child) {
                    if (child->gcRefs != kReachable) {
                        child->gcRefs = kReachable;
                        work.push_back(child);
                    }
                });
            }
        }
    // 3. Empty the rest: holding a reference to each first keeps them valid while their
    //    contents go, then dropping it frees them.
    std::vector<TrackedObject*> garbage;
    for (TrackedObject* o = g_head; o; o = o->gcNext)
        if (o->gcRefs != kReachable) garbage.push_back(o);
    for (TrackedObject* o : garbage) ++o->refCount;
    for (TrackedObject* o : garbage) {
        switch (o->gcType) {
        case VarType::Array: {
            std::vector<Variable> items;
            items.swap(static_cast<ArrayObject*>(o)->items);
            break;
        }
        case VarType::MultiValue: {
            std::vector<Variable> values;
            values.swap(static_cast<MultiResult*>(o)->values);
            break;
        }
        case VarType::Table: static_cast<TableObject*>(o)->table.clear(); break;
        default: break;
        }
    }
    for (TrackedObject* o : garbage)
        if (--o->refCount == 0) destroyHeapObject(o->gcType, o);
    g_threshold = std::max<std::size_t>(10000, g_tracked * 2);
    g_collecting = false;
    return garbage.size();
}

}  // namespace korvel
