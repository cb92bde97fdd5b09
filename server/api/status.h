// Status: the outcome of a server operation that can fail, with a message
// meant for a person (it names the file, module or value at fault).
//
// Thread-safety: a Status is a plain value.
#ifndef TAVO_SERVER_STATUS_H_
#define TAVO_SERVER_STATUS_H_

#include <string>
#include <utility>

namespace tavo_server {

class Status {
 public:
  Status() = default;
  static Status OK() { return Status(); }
  static Status Error(std::string message) { return Status(std::move(message)); }

  bool ok() const { return !failed_; }
  const std::string& message() const { return message_; }

 private:
  explicit Status(std::string message) : failed_(true), message_(std::move(message)) {}
  bool failed_ = false;
  std::string message_;
};

}  // namespace tavo_server

#endif  // TAVO_SERVER_STATUS_H_
