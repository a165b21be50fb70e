#include "input_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "exit_codes.h"

namespace quelm_tool {
namespace {

constexpr size_t kChunk = 16384;  // bytes per read()
const LineLimits kKeyFileLimits = {256, 4096};

// Closes a descriptor and wipes what was read when it goes out of scope: key files pass through.
struct Reading {
    int fd = -1;
    char buffer[kChunk];
    ~Reading() {
        if (fd >= 0) close(fd);
        explicit_bzero(buffer, sizeof buffer);
    }
};

std::string quoted(const std::string &path) {
    return "'" + path + "'";
}

std::string size_text(size_t bytes) {
    if (bytes % (1 << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    if (bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " bytes";
}

std::string directory(const std::string &path) {
    return quoted(path) + " is a directory; give a file";
}

std::string trimmed(const std::string &s) {
    const size_t first = s.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

void wipe(std::vector<std::string> *lines) {
    for (std::string &line : *lines)
        explicit_bzero(line.data(), line.size());
    lines->clear();
}

}  // namespace

int read_lines(const std::string &path, const LineLimits &limits, std::vector<std::string> *lines,
               std::string *error) {
    lines->clear();
    return for_each_line(
        path, limits, [lines](std::string &line) { lines->push_back(std::move(line)); }, error);
}

int for_each_line(const std::string &path, const LineLimits &limits,
                  const std::function<void(std::string &line)> &take, std::string *error) {
    size_t number = 0;  // lines taken
    Reading r;
    r.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (r.fd < 0 || fstat(r.fd, &st) != 0) {
        *error = "cannot open " + quoted(path) + ": " + std::strerror(errno);
        return kExitNoInput;
    }
    if (S_ISDIR(st.st_mode)) {
        *error = directory(path);
        return kExitNoInput;
    }
    std::string line;
    size_t total = 0;
    auto too_long = [&] {
        *error = quoted(path) + ", line " + std::to_string(number + 1) + ": longer than " +
                 std::to_string(limits.max_line) + " bytes; is this the right file?";
        return kExitDataError;
    };
    for (;;) {
        // One byte past the limit is enough to know the file is too large.
        const size_t want = std::min(kChunk, limits.max_total + 1 - total);
        const ssize_t n = read(r.fd, r.buffer, want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = "cannot read " + quoted(path) + ": " + std::strerror(errno);
            return kExitNoInput;
        }
        if (n == 0) break;
        for (const char *p = r.buffer, *end = r.buffer + n; p < end; p++) {
            if (*p == '\0') {
                *error = quoted(path) + ", line " + std::to_string(number + 1) +
                         ": a NUL byte; give a text file";
                return kExitDataError;
            }
            if (*p != '\n') {
                // The limit and a '\r' that may end the line.
                if (line.size() > limits.max_line) return too_long();
                line += *p;
                continue;
            }
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.size() > limits.max_line) return too_long();
            take(line);
            line.clear();
            number++;
        }
        total += size_t(n);
        if (total > limits.max_total) {
            *error = quoted(path) + " is larger than " + size_text(limits.max_total) +
                     "; is this the right file?";
            return kExitDataError;
        }
    }
    if (line.size() > limits.max_line) return too_long();
    if (!line.empty()) take(line);
    return kExitOk;
}

int refuse_directory(const std::string &path, std::string *error) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return kExitOk;
    *error = directory(path);
    return kExitNoInput;
}

int read_key_file(const ZmqApi &zmq, const std::string &path, KeyHalf want, std::string *key,
                  std::string *error) {
    const std::string file = quoted(path);
    const std::string make = "; make keys with quelm keygen";
    std::vector<std::string> lines;
    const int status = read_lines(path, kKeyFileLimits, &lines, error);
    if (status == kExitDataError) *error += " (a key file of quelm keygen is two short lines)";
    if (status != kExitOk) return status;
    key->clear();
    std::string problem;
    KeyHalf found = KeyHalf::kPublic;
    for (size_t i = 0; i < lines.size() && problem.empty(); i++) {
        const std::string line = trimmed(lines[i]);
        const std::string where = file + ", line " + std::to_string(i + 1) + ": ";
        if (line.empty() || line[0] == '#') continue;
        if (!key->empty()) {
            problem = where + "a second key; give a file of one key" + make;
            continue;
        }
        const bool secret = line.rfind("secret-key", 0) == 0 && line.size() > 10 &&
                            (line[10] == ' ' || line[10] == '\t');
        const std::string text = secret ? trimmed(line.substr(10)) : line;
        if (is_z85_key(zmq, text)) {
            *key = text;
            found = secret ? KeyHalf::kSecret : KeyHalf::kPublic;
        } else {
            problem = where + "not a CURVE key (" + (secret ? "secret-key and " : "") +
                      "40 characters of Z85, not " + std::to_string(text.size()) + ")" + make;
        }
    }
    wipe(&lines);
    if (problem.empty() && key->empty())
        problem = file + " holds no key, only blank and comment lines" + make;
    else if (problem.empty() && found != want && want == KeyHalf::kPublic)
        problem = file + " holds a secret key (the .key file of quelm keygen); give its .pub " +
                  "file here, and keep " + file + " private";
    else if (problem.empty() && found != want)
        problem = file +
                  " holds a public key; give the .key file quelm keygen wrote (key files of "
                  "earlier builds held the bare key: make a new pair with quelm keygen)";
    if (problem.empty()) return kExitOk;
    explicit_bzero(key->data(), key->size());
    key->clear();
    *error = problem;
    return kExitDataError;
}

bool secret_key_exposed(const std::string &path, std::string *warning) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || (st.st_mode & 077) == 0) return false;
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", unsigned(st.st_mode & 07777));
    *warning = "warning: " + quoted(path) + " can be read by group or others (mode " + mode +
               "); chmod 600 " + quoted(path);
    return true;
}

}  // namespace quelm_tool
