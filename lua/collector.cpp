// The cycle collector: trial deletion over the thread's container objects. Counts of references
// coming from other containers are subtracted; what still has a count is referenced from outside
// (globals, the value stack, native locals, host handles) and everything reachable from it lives.
// The rest is cyclic garbage: its references are dropped, which frees it through the counts.
#include "collector_internal.h"

#include "vm_internal.h"

namespace korvel::lua {

namespace {

struct ContainerList {
    Object head{Kind::Nil};
    std::size_t live = 0;
    ContainerList() {
        head.previousContainer = &head;
        head.nextContainer = &head;
    }
};

ContainerList& containers() {
    thread_local ContainerList list;
    return list;
}

template <typename Visit> void forEachChild(Object* object, Visit&& visit) {
    auto visitValue = [&](const Value& value) {
        if (value.isObject() && value.kind() != Kind::String) visit(value.asObject());
    };
    switch (object->kind) {
    case Kind::Table: static_cast<Table*>(object)->forEachValue(visitValue); return;
    case Kind::Function:
        visitValue(static_cast<FunctionObject*>(object)->environment);
        return;
    case Kind::Environment: {
        auto* environment = static_cast<EnvironmentObject*>(object);
        const SmallValueStore<8>& slots = environment->environment.slots;
        for (std::size_t i = 0; i < slots.size(); ++i) visitValue(slots[i]);
        visitValue(environment->parentObject);
        return;
    }
    case Kind::Iterator: visitValue(static_cast<IteratorObject*>(object)->subject); return;
    default: return;
    }
}

void dropReferences(Object* object) {
    switch (object->kind) {
    case Kind::Table: static_cast<Table*>(object)->clear(); return;
    case Kind::Function: {
        Value environment = std::move(static_cast<FunctionObject*>(object)->environment);
        return;
    }
    case Kind::Environment: {
        auto* environment = static_cast<EnvironmentObject*>(object);
        std::vector<Value> slots;
        environment->environment.slots.moveOut(slots);
        Value parent = std::move(environment->parentObject);
        return;
    }
    case Kind::Iterator: {
        Value subject = std::move(static_cast<IteratorObject*>(object)->subject);
        return;
    }
    default: return;
    }
}

} // namespace

void Object::linkContainer() {
    if (kind == Kind::Nil) return;   // the list's own head
    ContainerList& list = containers();
    previousContainer = list.head.previousContainer;
    nextContainer = &list.head;
    list.head.previousContainer->nextContainer = this;
    list.head.previousContainer = this;
    ++list.live;
    ++t_containersSinceCollection;
}

void Object::unlinkContainer() {
    previousContainer->nextContainer = nextContainer;
    nextContainer->previousContainer = previousContainer;
    --containers().live;
}

std::size_t liveContainerCount() { return containers().live; }

void collectCycles() {
    ContainerList& list = containers();
    Object* head = &list.head;
    for (Object* object = head->nextContainer; object != head; object = object->nextContainer) {
        object->collectorCount = object->refCount;
        object->collectorMarked = false;
    }
    for (Object* object = head->nextContainer; object != head; object = object->nextContainer) {
        forEachChild(object, [](Object* child) { --child->collectorCount; });
    }
    std::vector<Object*> pending;
    for (Object* object = head->nextContainer; object != head; object = object->nextContainer) {
        if (object->collectorCount > 0 && !object->collectorMarked) {
            object->collectorMarked = true;
            pending.push_back(object);
        }
    }
    while (!pending.empty()) {
        Object* object = pending.back();
        pending.pop_back();
        forEachChild(object, [&](Object* child) {
            if (!child->collectorMarked) {
                child->collectorMarked = true;
                pending.push_back(child);
            }
        });
    }
    std::vector<Object*> garbage;
    for (Object* object = head->nextContainer; object != head; object = object->nextContainer) {
        if (!object->collectorMarked) garbage.push_back(object);
    }
    // Hold every garbage object while references are dropped, so none is freed mid-walk.
    for (Object* object : garbage) retainObject(object);
    for (Object* object : garbage) dropReferences(object);
    for (Object* object : garbage) releaseObject(object);
    t_containersSinceCollection = 0;
    t_collectionThreshold = list.live > 10000 ? list.live : 10000;
}

} // namespace korvel::lua
