#include "ScriptedFeeder.h"

#include <utility>

namespace qv {

ScriptedFeeder::ScriptedFeeder(Registry& registry, ScriptedTimeline timeline)
    : registry_(registry), timeline_(std::move(timeline)) {}

ScriptedFeeder::~ScriptedFeeder() {
    for (auto& timer : timers_) {
        timer->invalidate();
    }
}

void ScriptedFeeder::schedule(RunLoop& loop, double origin) {
    for (const auto& event : timeline_.events()) {
        double delay = origin + event.at - loop.now();
        const ScriptedTimeline::Event* target = &event;
        timers_.push_back(loop.performAfterDelay(delay < 0.0 ? 0.0 : delay,
                                                 [this, target]() { apply(*target); }));
    }
}

io_registry_entry_t ScriptedFeeder::add(io_registry_entry_t parent,
                                        const ScriptedTimeline::Entry& entry) {
    io_registry_entry_t handle =
        registry_.addEntry(parent, entry.className, entry.name, entry.properties);
    if (handle == IO_OBJECT_NULL) {
        return handle;
    }
    handles_[entry.id] = handle;
    for (const auto& child : entry.children) {
        add(handle, child);
    }
    return handle;
}

void ScriptedFeeder::apply(const ScriptedTimeline::Event& event) {
    switch (event.kind) {
        case ScriptedTimeline::Event::Kind::Add:
            add(event.parentId.empty() ? IO_OBJECT_NULL : handleFor(event.parentId), event.entry);
            break;
        case ScriptedTimeline::Event::Kind::Set:
            registry_.setProperties(handleFor(event.id), event.properties);
            break;
        case ScriptedTimeline::Event::Kind::Remove: {
            registry_.removeEntry(handleFor(event.id));
            // Forget every id whose entry left the tree with it.
            forgetDetachedIds();
            break;
        }
    }
    ++applied_;
    if (observer_) {
        observer_(event);
    }
}

void ScriptedFeeder::forgetDetachedIds() {
    for (auto it = handles_.begin(); it != handles_.end();) {
        it = registry_.isAttached(it->second) ? std::next(it) : handles_.erase(it);
    }
}

io_registry_entry_t ScriptedFeeder::handleFor(const std::string& id) const {
    auto it = handles_.find(id);
    return it == handles_.end() ? IO_OBJECT_NULL : it->second;
}

}  // namespace qv
