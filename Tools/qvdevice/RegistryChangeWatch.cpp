#include "RegistryChangeWatch.h"

#include <glib.h>

namespace qvdevice {

struct RegistryChangeWatch::Source {
    GSource base;
    RegistryChangeWatch* watch;

    static gboolean prepare(GSource* source, gint* timeout) {
        *timeout = -1;
        return reinterpret_cast<Source*>(source)->watch->hasChanged();
    }
    static gboolean check(GSource* source) {
        return reinterpret_cast<Source*>(source)->watch->hasChanged();
    }
    static gboolean dispatch(GSource* source, GSourceFunc, gpointer) {
        reinterpret_cast<Source*>(source)->watch->check();
        return G_SOURCE_CONTINUE;
    }
};

namespace {

GSourceFuncs sourceFunctions = {RegistryChangeWatch::Source::prepare,
                                RegistryChangeWatch::Source::check,
                                RegistryChangeWatch::Source::dispatch,
                                nullptr,
                                nullptr,
                                nullptr};

}  // namespace

RegistryChangeWatch::RegistryChangeWatch(qv::GLibRunLoop& loop, const qv::Registry& registry,
                                         std::function<void()> changed)
    : registry_(registry), changed_(std::move(changed)) {
    seen_ = registry_.changeStamp(registry_.root());
    source_ = g_source_new(&sourceFunctions, sizeof(Source));
    reinterpret_cast<Source*>(source_)->watch = this;
    g_source_attach(source_, loop.context());
}

RegistryChangeWatch::~RegistryChangeWatch() {
    g_source_destroy(source_);
    g_source_unref(source_);
}

bool RegistryChangeWatch::hasChanged() const {
    return registry_.changeStamp(registry_.root()) != seen_;
}

void RegistryChangeWatch::check() {
    if (!hasChanged()) {
        return;
    }
    seen_ = registry_.changeStamp(registry_.root());
    changed_();
}

}  // namespace qvdevice
