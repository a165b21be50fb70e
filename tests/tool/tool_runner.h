// Runs quelm (or any program) as a child process in a scratch folder that holds its output.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
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

namespace quelm_test {

using Json = nlohmann::json;

inline std::string read_file(const std::string &path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// A value as the tests compare it: strings without their quotes.
inline std::string text(const Json &v) {
    return v.is_string() ? std::string(v) : v.dump();
}

// Every line parsed as JSON: a line that is not valid JSON throws, so parsing also checks it.
inline std::vector<Json> json_lines(const std::string &text) {
    std::vector<Json> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        result.push_back(Json::parse(line));
    return result;
}

// Waits for what another process brings about, looking every 10 ms; false after `seconds`.
inline bool eventually(const std::function<bool()> &done, double seconds = 20) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// A whole output against its file in baselines/; QUELM_UPDATE_BASELINES=1 rewrites the files.
inline void expect_baseline(const std::string &name, const std::string &text) {
    const std::string path = QUELM_BASELINES_DIR "/" + name;
    if (getenv("QUELM_UPDATE_BASELINES") != nullptr) std::ofstream(path) << text;
    EXPECT_EQ(text, read_file(path)) << "differs from " << path;
}

struct ToolResult {
    int exit_code = -1;  // 128 + signal number when the program was killed
    std::string out, err;
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
    bool wait_for(const std::string &name, const std::string &text) const {
        return eventually([&] { return read(name).find(text) != std::string::npos; });
    }
    void write(const std::string &name, const std::string &text) const {
        std::ofstream(path(name)) << text;
    }
    // A command line as words; a word of `names` stands for its value.
    std::vector<std::string> words(const std::string &line,
                                   const std::map<std::string, std::string> &names = {}) const {
        std::vector<std::string> result;
        std::istringstream in(line);
        for (std::string w; in >> w;)
            result.push_back(names.count(w) != 0 ? names.at(w) : w);
        return result;
    }

    // Starts a program in the scratch folder (relative names are its files) and returns its pid.
    pid_t spawn(std::vector<std::string> args, const std::string &stdin_path = "/dev/null") const {
        std::vector<char *> argv;
        for (std::string &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const int in = open(stdin_path.c_str(), O_RDONLY | O_CLOEXEC);
        const int out = open(path("stdout").c_str(), kCreate, 0644);
        const int err = open(path("stderr").c_str(), kCreate, 0644);
        const pid_t pid = fork();
        if (pid == 0) {
            dup2(in, 0), dup2(out, 1), dup2(err, 2);
            if (chdir(dir_.c_str()) != 0) _exit(126);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        close(in), close(out), close(err);
        return pid;
    }
    ToolResult run(std::vector<std::string> args,
                   const std::string &stdin_path = "/dev/null") const {
        args.insert(args.begin(), QUELM_TOOL_PATH);
        return finish(spawn(args, stdin_path));
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
    static constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    std::string dir_;
};

}  // namespace quelm_test
