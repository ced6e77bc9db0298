#pragma once

// Ownership of GLib and GObject references as std::unique_ptr, so that every reference the
// Flatpak layer takes is dropped on every path, exceptions included.

#include <glib-object.h>
#include <memory>
#include <string>

namespace corvane::flatpak {

struct GObjectUnref {
  void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
struct GPtrArrayUnref {
  void operator()(GPtrArray* array) const noexcept { g_ptr_array_unref(array); }
};
struct GBytesUnref {
  void operator()(GBytes* bytes) const noexcept { g_bytes_unref(bytes); }
};
struct GMainContextUnref {
  void operator()(GMainContext* context) const noexcept { g_main_context_unref(context); }
};
struct GFree {
  void operator()(gpointer memory) const noexcept { g_free(memory); }
};

/// One reference to a GObject, dropped with g_object_unref.
template <class T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;
/// One reference to a GPtrArray (whose free function drops its elements).
using GPtrArrayPtr = std::unique_ptr<GPtrArray, GPtrArrayUnref>;
using GBytesPtr = std::unique_ptr<GBytes, GBytesUnref>;
using GMainContextPtr = std::unique_ptr<GMainContext, GMainContextUnref>;
/// Memory from g_malloc (strings that a "transfer full" function returns).
using GCharPtr = std::unique_ptr<char, GFree>;

/// Takes over a reference the caller owns ("transfer full").
template <class T>
[[nodiscard]] GObjectPtr<T> adopt(T* object) noexcept {
  return GObjectPtr<T>(object);
}

/// Takes a new reference to an object the caller does not own ("transfer none").
template <class T>
[[nodiscard]] GObjectPtr<T> share(T* object) noexcept {
  return GObjectPtr<T>(object == nullptr ? nullptr : static_cast<T*>(g_object_ref(object)));
}

/// A C string that may be null, as std::string (empty for null).
[[nodiscard]] inline std::string toString(const char* text) {
  return text == nullptr ? std::string() : std::string(text);
}

/// Takes over a g_malloc'd string and returns it as std::string.
[[nodiscard]] inline std::string takeString(char* text) {
  const GCharPtr owned(text);
  return toString(owned.get());
}

}  // namespace corvane::flatpak
