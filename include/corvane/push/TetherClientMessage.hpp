#pragma once

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CorvaneError.hpp>
#include <corvane/model/ManagedApp.hpp>
#include <corvane/push/AppProgress.hpp>

#include <boost/describe/class.hpp>
#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace corvane {

/// One message the daemon pushes to a client. Coded as {"type": {case: {payload}}}.
struct TetherClientMessage {
  /// The kind of the message and its payload.
  class MessageType {
   public:
    /// Progress or a state change of one app: {"appProgress": {"progress": {...}}}.
    struct AppProgressCase {
      static constexpr std::string_view caseName = "appProgress";
      AppProgress progress;
      BOOST_DESCRIBE_CLASS(AppProgressCase, (), (progress), (), ())
    };
    /// The daemon's connection with this client is established: {"connectionEstablished": {}}.
    struct ConnectionEstablished {
      static constexpr std::string_view caseName = "connectionEstablished";
    };
    /// One log line of the daemon: {"log": {"log": "..."}}.
    struct Log {
      static constexpr std::string_view caseName = "log";
      std::string log;
      BOOST_DESCRIBE_CLASS(Log, (), (log), (), ())
    };
    /// The whole catalogue, or the error that prevented building it:
    /// {"managedAppCatalog": {"_0": [...], "_1": {...}}}, each written only when present.
    struct ManagedAppCatalog {
      static constexpr std::string_view caseName = "managedAppCatalog";
      std::optional<std::vector<ManagedApp>> _0;
      std::optional<CorvaneError> _1;
      BOOST_DESCRIBE_CLASS(ManagedAppCatalog, (), (_0, _1), (), ())
    };
    using Cases = std::variant<AppProgressCase, ConnectionEstablished, Log, ManagedAppCatalog>;

    explicit MessageType(Cases cases) noexcept : cases_(std::move(cases)) {}
    [[nodiscard]] static MessageType appProgress(AppProgress progress) {
      return MessageType(Cases(AppProgressCase{std::move(progress)}));
    }
    [[nodiscard]] static MessageType connectionEstablished() noexcept {
      return MessageType(Cases(ConnectionEstablished{}));
    }
    [[nodiscard]] static MessageType log(std::string line) noexcept {
      return MessageType(Cases(Log{std::move(line)}));
    }
    [[nodiscard]] static MessageType managedAppCatalog(std::optional<std::vector<ManagedApp>> apps,
                                                       std::optional<CorvaneError> error) noexcept {
      return MessageType(Cases(ManagedAppCatalog{std::move(apps), error}));
    }

    [[nodiscard]] const Cases& cases() const noexcept { return cases_; }

   private:
    Cases cases_;
  };

  MessageType type = MessageType::connectionEstablished();

  /// A readable rendering for logs: "log(<line>)", "appProgress(<bundle>: <state>)",
  /// "connectionEstablished", "managedAppCatalog(3 apps)" or "managedAppCatalog(networkError)".
  [[nodiscard]] std::string description() const;
};
BOOST_DESCRIBE_STRUCT(TetherClientMessage, (), (type))

/// "[log(a), connectionEstablished]": the bracketed, comma-separated renderings.
[[nodiscard]] std::string description(const std::vector<TetherClientMessage>& messages);

}  // namespace corvane

/// Formats a message as its rendering for logs.
template <>
struct fmt::formatter<corvane::TetherClientMessage> : fmt::formatter<std::string_view> {
  auto format(const corvane::TetherClientMessage& value, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(value.description(), ctx);
  }
};
