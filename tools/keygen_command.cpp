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
        "--secret-key; readable by its owner only). With --client, a pair for an exporter: "
        "PREFIX.key for quelm flows --zmq-client-key, PREFIX.pub for the collector's "
        "--allow-keys file");
    command
        ->add_option("-o,--output", o.prefix,
                     "Path and name of the two files, without suffix (default quelm-collector, "
                     "or quelm-exporter with --client)")
        ->type_name("PREFIX");
    command->add_flag("--client", o.client,
                      "Make an exporter's pair, which a collector with --allow-keys admits");
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
    const std::string prefix = !o.prefix.empty() ? o.prefix
                               : o.client        ? "quelm-exporter"
                                                 : "quelm-collector";
    const std::string secret_path = prefix + ".key", public_path = prefix + ".pub";
    // The first line of each file says whose key it is and where it goes; the secret key is
    // labelled so that it cannot be taken for the public one. A public key stands alone on its
    // line: an exporter's .pub file can be appended to an allow-list as it is.
    const std::string secret_use = o.client ? "quelm flows --zmq-client-key " + secret_path
                                            : "quelm collect --secret-key " + secret_path;
    const std::string public_use =
        o.client ? "add it to the collector's --allow-keys file (cat " + public_path + " >> FILE)"
                 : "quelm flows --zmq-server-key @" + public_path;
    const char *whose = o.client ? "an exporter" : "a collector";
    std::string secret_text = std::string("# quelm CURVE secret key of ") + whose +
                              ": keep it private (" + secret_use + ")\nsecret-key " + secret_key +
                              "\n";
    const std::string public_text = std::string("# quelm CURVE public key of ") + whose + ": " +
                                    public_use + "\n" + public_key + "\n";
    const bool written = write_key_file(secret_path, secret_text, 0600, o.force, &error) &&
                         write_key_file(public_path, public_text, 0644, o.force, &error);
    explicit_bzero(secret_key, sizeof secret_key);
    explicit_bzero(secret_text.data(), secret_text.size());
    if (!written) {
        fprintf(stderr, "quelm keygen: %s\n", error.c_str());
        if (error.find(public_path) != std::string::npos) unlink(secret_path.c_str());
        return kExitCantCreate;
    }
    printf("secret key: %s (give it to: %s; keep it private)\n", secret_path.c_str(),
           secret_use.c_str());
    printf("public key: %s (%s%s)\n", public_path.c_str(),
           o.client ? "" : "give it to: ", public_use.c_str());
    return kExitOk;
}

}  // namespace quelm_tool
