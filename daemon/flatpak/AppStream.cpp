#include "AppStream.hpp"

#include <fmt/format.h>

#include <cstdlib>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <memory>
#include <string_view>

namespace corvane::flatpak {

namespace {

struct DocFree {
  void operator()(xmlDoc* doc) const noexcept { xmlFreeDoc(doc); }
};
struct ContextFree {
  void operator()(xmlParserCtxt* context) const noexcept { xmlFreeParserCtxt(context); }
};
struct XmlFree {
  void operator()(xmlChar* text) const noexcept { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlFree>;

std::string_view nameOf(const xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);  // xmlChar is UTF-8 bytes
}

bool isElement(const xmlNode* node, std::string_view name) {
  return node->type == XML_ELEMENT_NODE && nameOf(node) == name;
}

/// The attribute's value, empty when absent.
std::string attribute(const xmlNode* node, const char* name) {
  const XmlText value(xmlGetProp(node, reinterpret_cast<const xmlChar*>(name)));
  return value ? std::string(reinterpret_cast<const char*>(value.get())) : std::string();
}

/// The element's text, trimmed.
std::string text(const xmlNode* node) {
  const XmlText content(xmlNodeGetContent(node));
  if (!content) return {};
  std::string_view view(reinterpret_cast<const char*>(content.get()));
  const auto first = view.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  view = view.substr(first, view.find_last_not_of(" \t\r\n") - first + 1);
  return std::string(view);
}

/// Whether the element is the untranslated one (no xml:lang, or "C").
bool untranslated(const xmlNode* node) {
  const XmlText lang(xmlNodeGetLang(node));
  if (!lang) return true;
  const std::string_view value(reinterpret_cast<const char*>(lang.get()));
  return value.empty() || value == "C";
}

template <class Visit>
void children(const xmlNode* parent, std::string_view name, Visit visit) {
  for (const xmlNode* child = parent->children; child != nullptr; child = child->next)
    if (isElement(child, name)) visit(child);
}

/// A release's place in time: its timestamp, else its date (YYYY-MM-DD sorts as text).
std::string releaseOrder(const xmlNode* release) {
  const auto timestamp = attribute(release, "timestamp");
  if (!timestamp.empty()) {
    // Seconds since 1970 as a date-like text, so both forms compare alike.
    const auto seconds = std::strtoll(timestamp.c_str(), nullptr, 10);
    return fmt::format("{:020}", seconds);
  }
  const auto date = attribute(release, "date");
  return date.empty() ? std::string() : fmt::format("date:{}", date);
}

AppStreamComponent readComponent(const xmlNode* node, const std::filesystem::path& base) {
  AppStreamComponent component;
  int iconSize = -1;
  std::string newest;
  bool haveRelease = false;
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    if (child->type != XML_ELEMENT_NODE) continue;
    const auto name = nameOf(child);
    if (name == "id") {
      component.id = text(child);
    } else if (name == "name" && untranslated(child)) {
      component.name = text(child);
    } else if (name == "summary" && untranslated(child)) {
      component.summary = text(child);
    } else if (name == "developer_name" && untranslated(child)) {
      component.developerName = text(child);
    } else if (name == "project_license") {
      component.projectLicence = text(child);
    } else if (name == "bundle" && attribute(child, "type") == "flatpak") {
      component.bundle = text(child);
    } else if (name == "icon") {
      const auto type = attribute(child, "type");
      if (type == "remote" && component.iconUrl.empty()) {
        component.iconUrl = text(child);
      } else if (type == "cached") {
        const auto width = attribute(child, "width");
        const auto height = attribute(child, "height");
        const int size = std::atoi(width.c_str());
        auto path = base / "icons" / fmt::format("{}x{}", width, height) / text(child);
        if (size > iconSize && std::filesystem::exists(path)) {
          iconSize = size;
          component.iconPath = std::move(path);
        }
      }
    } else if (name == "categories") {
      children(child, "category",
               [&](const xmlNode* item) { component.categories.push_back(text(item)); });
    } else if (name == "languages") {
      children(child, "lang",
               [&](const xmlNode* item) { component.languages.push_back(text(item)); });
    } else if (name == "screenshots") {
      children(child, "screenshot", [&](const xmlNode* screenshot) {
        std::string url;
        children(screenshot, "image", [&](const xmlNode* image) {
          // The source image, else the first thumbnail.
          if (url.empty() || attribute(image, "type") == "source") url = text(image);
        });
        if (url.empty()) return;
        if (attribute(screenshot, "type") == "default")
          component.screenshots.insert(component.screenshots.begin(), std::move(url));
        else
          component.screenshots.push_back(std::move(url));
      });
    } else if (name == "releases") {
      children(child, "release", [&](const xmlNode* release) {
        auto order = releaseOrder(release);
        // The newest by time; without times, the first (AppStream lists newest first).
        if (!haveRelease || (!order.empty() && order > newest)) {
          haveRelease = true;
          newest = std::move(order);
          component.version = attribute(release, "version");
        }
      });
    }
  }
  return component;
}

}  // namespace

std::vector<AppStreamComponent> readAppStream(const std::filesystem::path& xml) {
  // Checked first: libxml2 would also print its own warning.
  std::error_code failed;
  if (!std::filesystem::is_regular_file(xml, failed))
    throw AppStreamError(
        fmt::format("{}: {}", xml.native(), failed ? failed.message() : "no such file"));
  const std::unique_ptr<xmlParserCtxt, ContextFree> context(xmlNewParserCtxt());
  if (!context) throw AppStreamError(fmt::format("{}: out of memory", xml.native()));
  const std::unique_ptr<xmlDoc, DocFree> doc(
      xmlCtxtReadFile(context.get(), xml.c_str(), nullptr,
                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!doc) {
    const xmlError* error = xmlCtxtGetLastError(context.get());
    if (error == nullptr || error->message == nullptr)
      throw AppStreamError(fmt::format("{}: cannot be read", xml.native()));
    std::string message(error->message);
    while (!message.empty() && message.back() == '\n') message.pop_back();
    throw AppStreamError(fmt::format("{}: line {}: {}", xml.native(), error->line, message));
  }
  const xmlNode* root = xmlDocGetRootElement(doc.get());
  if (root == nullptr || !isElement(root, "components"))
    throw AppStreamError(
        fmt::format("{}: not an AppStream catalogue (the root is <{}>, not <components>)",
                    xml.native(), root == nullptr ? "" : nameOf(root)));
  std::vector<AppStreamComponent> result;
  const auto base = xml.parent_path();
  children(root, "component", [&](const xmlNode* node) {
    auto component = readComponent(node, base);
    if (!component.id.empty()) result.push_back(std::move(component));
  });
  return result;
}

}  // namespace corvane::flatpak
