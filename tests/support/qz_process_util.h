// Running a command-line tool of the build as a process, for the tests of
// the tools: exit code, standard output and standard error.
#ifndef QZ_PROCESS_UTIL_H
#define QZ_PROCESS_UTIL_H

#include <qz_test_util.h>

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace qztest {

struct ProcessResult {
    int code;
    std::string out;
    std::string err;
};

// Single quotes for the shell.
inline std::string shellQuote(const std::string& s) {
    std::string q = "'";
    for (char ch : s) {
        if (ch == '\'')
            q += "'\\''";
        else
            q += ch;
    }
    return q + "'";
}

// Runs the program with the arguments, standard input from /dev/null; the
// captured output goes through files under the build tree named by tag.
inline ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args,
                                const std::string& tag) {
    const std::string out = tmpPath(tag + ".out");
    const std::string err = tmpPath(tag + ".err");
    std::string cmd = shellQuote(program);
    for (const std::string& a : args) cmd += " " + shellQuote(a);
    cmd += " </dev/null >" + shellQuote(out) + " 2>" + shellQuote(err);
    const int status = std::system(cmd.c_str());
    ProcessResult r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = readFile(out);
    r.err = readFile(err);
    return r;
}

}  // namespace qztest

#endif
