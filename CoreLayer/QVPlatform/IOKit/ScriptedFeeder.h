// qv::ScriptedFeeder: plays a ScriptedTimeline into a registry on a run loop, each event at its
// time. It only adds, changes and removes entries; the registry's notification ports deliver
// what that causes.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Registry.h"
#include "RunLoop/RunLoop.h"
#include "ScriptedTimeline.h"

namespace qv {

class ScriptedFeeder {
  public:
    // Called after each event has been applied (the simulator reports it).
    using EventObserver = std::function<void(const ScriptedTimeline::Event&)>;

    ScriptedFeeder(Registry& registry, ScriptedTimeline timeline);
    ~ScriptedFeeder();

    // Schedules every event on `loop`, at its time on the loop's clock counted from `origin`.
    void schedule(RunLoop& loop, double origin = 0.0);
    // Applies one event now.
    void apply(const ScriptedTimeline::Event& event);
    void setEventObserver(EventObserver observer) { observer_ = std::move(observer); }

    // Adds an entry tree below `parent` outside the timeline (a stick that comes back in another
    // mode); its ids become known to later events like those of the timeline's own adds.
    io_registry_entry_t addEntry(io_registry_entry_t parent, const ScriptedTimeline::Entry& entry) {
        return add(parent, entry);
    }
    // Forgets the ids of entries that left the registry by other means than a timeline event.
    void forgetDetachedIds();

    // The registry handle of a script id, or IO_OBJECT_NULL while it is not present.
    io_registry_entry_t handleFor(const std::string& id) const;
    bool finished() const { return applied_ == timeline_.events().size(); }

  private:
    io_registry_entry_t add(io_registry_entry_t parent, const ScriptedTimeline::Entry& entry);

    Registry& registry_;
    ScriptedTimeline timeline_;
    std::map<std::string, io_registry_entry_t> handles_;
    std::vector<std::shared_ptr<Timer>> timers_;
    std::size_t applied_ = 0;
    EventObserver observer_;
};

}  // namespace qv
