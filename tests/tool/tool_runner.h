// Runs the built quelm binary as a child process, with standard output and error captured in files
// of a scratch folder that lives as long as the runner.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace quelm_test {

using Json = nlohmann::json;

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline std::vector<std::string> split_lines(const std::string &text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(line);
    return result;
}

// Every line parsed as JSON: a line that is not valid JSON throws, so parsing also checks it.
inline std::vector<Json> json_lines(const std::string &text) {
    std::vector<Json> result;
    for (const std::string &line : split_lines(text))
        result.push_back(Json::parse(line));
    return result;
}

// Waits for a condition that another process brings about (a line in its output, a file growing),
// looking every 10 ms; false when it does not come within `seconds`.
inline bool eventually(const std::function<bool()> &done, double seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

struct ToolResult {
    int exit_code = -1;  // 128 + signal number when the tool was killed
    std::string out, err;
    std::vector<std::string> lines() const { return split_lines(out); }
    std::vector<Json> records() const { return json_lines(out); }
};

class ToolRunner {
  public:
    ToolRunner() {
        char name[] = "/tmp/quelm-tool-test-XXXXXX";
        dir_ = mkdtemp(name);
    }
    ~ToolRunner() { std::filesystem::remove_all(dir_); }

    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string read(const std::string &name) const { return read_file(path(name)); }
    std::string write(const std::string &name, const std::string &text) const {
        std::ofstream(path(name)) << text;
        return path(name);
    }

    // A command line as words; a word "DIR/x" is the file x of the scratch folder, and a word
    // found in `names` stands for its value.
    std::vector<std::string> words(const std::string &line,
                                   const std::map<std::string, std::string> &names = {}) const {
        std::vector<std::string> result;
        std::istringstream in(line);
        for (std::string w; in >> w;)
            result.push_back(names.count(w) != 0       ? names.at(w)
                             : w.rfind("DIR/", 0) == 0 ? path(w.substr(4))
                                                       : w);
        return result;
    }

    // Starts the tool (after `wrapper`, a command that runs it) and returns its pid; `stdout_fd`
    // >= 0 replaces the output file.
    pid_t start(const std::vector<std::string> &args, const std::string &stdin_path = "/dev/null",
                int stdout_fd = -1, const std::vector<std::string> &wrapper = {}) const {
        std::vector<std::string> all = wrapper;
        all.push_back(QUELM_TOOL_PATH);
        all.insert(all.end(), args.begin(), args.end());
        return spawn(all, stdin_path, stdout_fd);
    }
    ToolResult run(const std::vector<std::string> &args,
                   const std::string &stdin_path = "/dev/null", int stdout_fd = -1) const {
        return finish(start(args, stdin_path, stdout_fd));
    }
    // Any program, with the same files for its output.
    pid_t start_command(const std::vector<std::string> &argv) const {
        return spawn(argv, "/dev/null", -1);
    }
    ToolResult run_command(const std::vector<std::string> &argv) const {
        return finish(start_command(argv));
    }
    ToolResult finish(pid_t pid) const {
        ToolResult r;
        int status = 0;
        if (pid > 0 && waitpid(pid, &status, 0) == pid)
            r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = read("stdout");
        r.err = read("stderr");
        return r;
    }

  private:
    pid_t spawn(std::vector<std::string> all, const std::string &stdin_path, int stdout_fd) const {
        std::vector<char *> argv;
        for (std::string &a : all)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, stdin_path.c_str(), O_RDONLY, 0);
        if (stdout_fd >= 0)
            posix_spawn_file_actions_adddup2(&actions, stdout_fd, 1);
        else
            posix_spawn_file_actions_addopen(&actions, 1, path("stdout").c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, path("stderr").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = -1;
        if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    std::string dir_;
};

}  // namespace quelm_test
