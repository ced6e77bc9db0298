#include "JsonOutput.hpp"

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/WireTypes.hpp>

#include <boost/json/serialize.hpp>

namespace cvnctl {

void JsonOutput::write(const boost::json::value& document) {
  const std::string line = boost::json::serialize(document) + "\n";
  std::fputs(line.c_str(), out_);
  // Every document reaches a reading script at once, even through a pipe.
  std::fflush(out_);
}

void JsonOutput::keys(const std::vector<std::string>& keys) {
  write(corvane::coding::encode(keys));
}

void JsonOutput::statuses(const std::vector<corvane::ManagedAppStatus>& statuses) {
  write(corvane::coding::encode(statuses));
}

void JsonOutput::catalog(const std::vector<corvane::ManagedApp>& apps) {
  write(corvane::coding::encode(apps));
}

void JsonOutput::done(std::string_view /*summary*/) {
  write(corvane::coding::encode(corvane::None{}));
}

void JsonOutput::announce(std::string_view /*summary*/) {}

void JsonOutput::state(const std::string& /*bundleID*/, const corvane::AppState& state,
                       bool /*live*/) {
  write(corvane::coding::encode(state));
}

void JsonOutput::progress(const corvane::AppProgress& progress) {
  write(corvane::coding::encode(progress));
}

void JsonOutput::settled(const std::vector<corvane::ManagedAppStatus>& statuses) {
  write(corvane::coding::encode(statuses));
}

void JsonOutput::note(std::string_view /*text*/) {}

namespace {

boost::json::object errorObject(const Failure& failure) {
  boost::json::object object;
  object["error"] = failure.error;
  object["description"] = failure.description;
  object["reason"] = failure.reason;
  return object;
}

}  // namespace

void JsonOutput::failure(const Failure& failure) {
  auto object = errorObject(failure);
  object["exit"] = toInt(failure.status);
  if (!failure.codingPath.empty()) object["path"] = failure.codingPath;
  const std::string line = boost::json::serialize(object) + "\n";
  std::fputs(line.c_str(), err_);
  std::fflush(err_);
}

void JsonOutput::failedResult(const Failure& failure) {
  write(errorObject(failure));
}

}  // namespace cvnctl
