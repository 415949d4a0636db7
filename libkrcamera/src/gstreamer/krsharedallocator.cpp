#include "gstreamer/krsharedallocator.hpp"

#include "gstreamer/krgstreamer.hpp"

#include <krplatform/krsharedallocation.hpp>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <atomic>
#include <new>
#include <utility>

namespace KR {

namespace {

constexpr gsize kAlignment = 4096; // of what allocateShared() returns

struct Memory {
    GstMemory base; // first: GStreamer has its address
    boost::shared_ptr<unsigned char[]> bytes;
    std::atomic<bool> made =
        false; ///< read and written where GStreamer's own locks order the threads that use `bytes`,
               ///< which ThreadSanitizer does not see
};

Memory& useMemory(GstMemory* memory) {
    auto& used = *reinterpret_cast<Memory*>(memory);
    used.made.load(std::memory_order_acquire);
    return used;
}

struct KRSharedAllocator {
    GstAllocator base;
};
struct KRSharedAllocatorClass {
    GstAllocatorClass base;
};

G_DEFINE_TYPE(KRSharedAllocator, kr_shared_allocator, GST_TYPE_ALLOCATOR)

/// Null: out of memory.
GstMemory* wrap(GstAllocator* allocator, boost::shared_ptr<unsigned char[]> bytes, GstMemoryFlags flags,
                GstMemory* parent, gsize maximum, gsize align, gsize offset, gsize size) {
    auto* memory = new (std::nothrow) Memory;
    if (memory == nullptr) {
        return nullptr;
    }
    memory->bytes = std::move(bytes);
    gst_memory_init(&memory->base, flags, allocator, parent, maximum, align, offset, size);
    memory->made.store(true, std::memory_order_release);
    return &memory->base;
}

GstMemory* allocate(GstAllocator* allocator, gsize size, GstAllocationParams* params) {
    const gsize maximum = size + params->prefix + params->padding;
    boost::shared_ptr<unsigned char[]> bytes;
    if (params->align < kAlignment) {
        bytes = allocateShared(maximum);
    }
    GstMemory* memory = nullptr;
    if (bytes) {
        memory = wrap(allocator, std::move(bytes), params->flags, nullptr, maximum, params->align,
                      params->prefix, size);
    }
    return memory != nullptr ? memory : gst_allocator_alloc(nullptr, size, params);
}

void freeMemory(GstAllocator*, GstMemory* memory) {
    delete &useMemory(memory);
}

gpointer map(GstMemory* memory, gsize, GstMapFlags) {
    return useMemory(memory).bytes.get();
}

void unmap(GstMemory*) {}

/// A part of the memory; size -1: up to its end.
GstMemory* share(GstMemory* memory, gssize offset, gssize size) {
    GstMemory* const parent = memory->parent != nullptr ? memory->parent : memory;
    const auto flags =
        static_cast<GstMemoryFlags>(GST_MINI_OBJECT_FLAGS(parent) | GST_MINI_OBJECT_FLAG_LOCK_READONLY);
    const gsize part = size == -1 ? memory->size - static_cast<gsize>(offset) : static_cast<gsize>(size);
    return wrap(memory->allocator, useMemory(memory).bytes, flags, parent, memory->maxsize, memory->align,
                memory->offset + static_cast<gsize>(offset), part);
}

void kr_shared_allocator_class_init(KRSharedAllocatorClass* type) {
    type->base.alloc = allocate;
    type->base.free = freeMemory;
}

void kr_shared_allocator_init(KRSharedAllocator* made) {
    GstAllocator* const allocator = &made->base;
    allocator->mem_type = "KRSharedMemory";
    allocator->mem_map = map;
    allocator->mem_unmap = unmap;
    allocator->mem_share = share;
}

/// Answers queries for the sink's allocator.
GstPadProbeReturn answer(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstQuery* const query = GST_PAD_PROBE_INFO_QUERY(info);
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
        return GST_PAD_PROBE_OK;
    }
    static GstAllocator* const allocator =
        GST_ALLOCATOR(gst_object_ref_sink(g_object_new(kr_shared_allocator_get_type(), nullptr)));
    gst_query_add_allocation_param(query, allocator, nullptr);
    return GST_PAD_PROBE_HANDLED;
}

} // namespace

void offerSharedMemory(GstElement* sink) {
    GstPad* const pad = gst_element_get_static_pad(sink, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, answer, nullptr, nullptr);
    gst_object_unref(pad);
}

} // namespace KR
