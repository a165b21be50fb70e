#include "keygen_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "exit_codes.h"
#include "zmq_api.h"

namespace quelm_tool {
namespace {

// Writes `text` to a new file of the given mode; an existing file is replaced only with `force`.
bool write_key_file(const std::string &path, const std::string &text, mode_t mode, bool force,
                    std::string *error) {
    // The secret key must never be readable by others, not even for a moment: create it with its
    // final mode, and replace an old file instead of reusing it.
    if (force && unlink(path.c_str()) != 0 && errno != ENOENT) {
        *error = "cannot replace '" + path + "': " + std::strerror(errno);
        return false;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) {
        *error = "cannot create '" + path + "': " + std::strerror(errno) +
                 (errno == EEXIST ? " (use --force to replace it, or another -o)" : "");
        return false;
    }
    const bool ok = write(fd, text.data(), text.size()) == ssize_t(text.size()) && fsync(fd) == 0;
    const int write_error = errno;
    if (close(fd) != 0 || !ok) {
        *error = "cannot write '" + path + "': " + std::strerror(ok ? errno : write_error);
        unlink(path.c_str());
        return false;
    }
    return true;
}

}  // namespace

CLI::App *add_keygen_command(CLI::App &app, KeygenOptions &o) {
    CLI::App *command = app.add_subcommand(
        "keygen",
        "Make a CURVE key pair for a collector: PREFIX.pub (the public key, for quelm flows "
        "--zmq-server-key @PREFIX.pub) and PREFIX.key (the secret key, for quelm collect "
        "--secret-key; readable by its owner only)");
    command->add_option("-o,--output", o.prefix, "Path and name of the two files, without suffix")
        ->type_name("PREFIX")
        ->capture_default_str();
    command->add_flag("--force", o.force, "Replace key files that exist");
    command->footer("Exit status: 0 success, 69 libzmq missing, 73 a key file cannot be created.");
    return command;
}

int run_keygen(const KeygenOptions &o) {
    std::string error;
    const ZmqApi *zmq = load_zmq(&error);
    if (zmq == nullptr) {
        fprintf(stderr, "quelm keygen: %s\n", error.c_str());
        return kExitUnavailable;
    }
    char public_key[41], secret_key[41];
    if (zmq->curve_keypair(public_key, secret_key) != 0) {
        fprintf(stderr,
                "quelm keygen: libzmq cannot make CURVE keys (%s); install a libzmq "
                "built with CURVE (libsodium)\n",
                zmq->strerror(zmq->errno_value()));
        return kExitUnavailable;
    }
    const std::string secret_path = o.prefix + ".key", public_path = o.prefix + ".pub";
    if (!write_key_file(secret_path, std::string(secret_key) + "\n", 0600, o.force, &error) ||
        !write_key_file(public_path, std::string(public_key) + "\n", 0644, o.force, &error)) {
        fprintf(stderr, "quelm keygen: %s\n", error.c_str());
        if (error.find(public_path) != std::string::npos) unlink(secret_path.c_str());
        return kExitCantCreate;
    }
    std::memset(secret_key, 0, sizeof secret_key);
    printf("secret key: %s (give it to: quelm collect --secret-key %s)\n", secret_path.c_str(),
           secret_path.c_str());
    printf("public key: %s (give it to: quelm flows --zmq-server-key @%s)\n", public_path.c_str(),
           public_path.c_str());
    return kExitOk;
}

}  // namespace quelm_tool
