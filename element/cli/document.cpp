#include "element/cli/document.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

namespace pbr::cli {
namespace {

bool ReadFile(const std::string& path, std::string* text, std::string* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    *error = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    *error = std::strerror(EISDIR);
    ::close(fd);
    return false;
  }
  text->reserve(static_cast<size_t>(st.st_size));
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      text->append(buffer, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      *error = std::strerror(errno);
      ::close(fd);
      return false;
    }
  }
  ::close(fd);
  return true;
}

// Accepts any well-formed JSON and keeps where the first fault is.
class WellFormed : public nlohmann::json::json_sax_t {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& e) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 16: syntax error ..."
    std::string what = e.what();
    const std::string at = "parse error at line ";
    const size_t pos = what.find(at);
    if (pos != std::string::npos) {
      const size_t comma = what.find(", column ", pos);
      const size_t colon = what.find(": ", pos);
      if (comma != std::string::npos && colon != std::string::npos && comma < colon) {
        where = what.substr(pos + at.size(), comma - pos - at.size()) + ":" +
                what.substr(comma + 9, colon - comma - 9);
        what = what.substr(colon + 2);
      }
    }
    reason = what;
    return false;
  }

  std::string where;  // LINE:COLUMN
  std::string reason;
};

}  // namespace

bool ReadDocument(const std::string& path, mgmt::Load::Format format, std::string* text,
                  std::string* error) {
  std::string why;
  if (!ReadFile(path, text, &why)) {
    *error = path + ": cannot read: " + why;
    return false;
  }
  // Editors may begin UTF-8 files with a byte order mark; neither parser of the server takes it.
  if (text->starts_with("\xef\xbb\xbf")) text->erase(0, 3);
  if (format != mgmt::Load::JSON) return true;
  WellFormed check;
  if (!nlohmann::json::sax_parse(*text, &check)) {
    *error =
        path + (check.where.empty() ? "" : ":" + check.where) + ": malformed JSON: " + check.reason;
    return false;
  }
  return true;
}

}  // namespace pbr::cli
