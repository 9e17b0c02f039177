/* test_exec_cmd_client.h - the server's side: raw requests, replies as JSON. */
#ifndef TEST_EXEC_CMD_CLIENT_H
#define TEST_EXEC_CMD_CLIENT_H

#include <fcntl.h>
#include "test_runtime_support.h"

typedef std::shared_ptr<json_t> Reply;

/* Procedure fn with param (JSON text, "" for none); a null reply when none came. */
inline Reply rpc(AgentHarness& h, int fn, const std::string& param, int timeout_ms = 30000)
{
    static int seq;
    h.send_raw(request_line(++seq, fn, param));
    return Reply(read_reply(h, timeout_ms), json_decref);
}

/* A field of the reply's "param"; "vol.name" reaches into a nested object. */
inline json_t* field(const Reply& r, std::string path)
{
    json_t* v = r ? json_object_get(r.get(), "param") : nullptr;
    for (size_t dot; v && (dot = path.find('.')) != std::string::npos; path.erase(0, dot + 1))
        v = json_object_get(v, path.substr(0, dot).c_str());
    return json_object_get(v, path.c_str());
}
inline long long num(const Reply& r, const std::string& path)
{
    return json_integer_value(field(r, path));
}
inline std::string text(const Reply& r, const std::string& path)
{
    const char* s = json_string_value(field(r, path));
    return s ? s : "(none)";
}

/* "param" of procedures 3, 7 and 8. */
inline std::string exec_args(const std::string& cmd, bool msg, bool block = false, int jobid = 0,
                             const std::string& user = "", const std::string& pwd = "", int sudo = 0)
{
    json_t* p = json_pack("{s:s,s:b,s:b,s:i,s:s,s:s,s:i}", "str", cmd.c_str(), "msg_mode", msg,
                          "block_mode", block, "jobid", jobid, "user", user.c_str(), "passwd",
                          pwd.c_str(), "sudoflag", sudo);
    std::unique_ptr<char, void (*)(void*)> s(json_dumps(p, 0), free);
    json_decref(p);
    return s ? s.get() : "{}";
}

/* True when text lies anywhere in the writable memory of process pid. */
inline bool memory_holds(pid_t pid, const std::string& text)
{
    std::string proc = "/proc/" + std::to_string(pid);
    std::istringstream maps(AgentHarness::read_file(proc + "/maps"));
    int mem = open((proc + "/mem").c_str(), O_RDONLY);
    bool found = false;
    for (std::string line; mem >= 0 && !found && std::getline(maps, line);) {
        unsigned long long lo = 0, hi = 0;
        char perms[5] = "";
        /* a sanitizer's reserved regions are huge and hold no data of ours */
        if (sscanf(line.c_str(), "%llx-%llx %4s", &lo, &hi, perms) != 3 || perms[1] != 'w' ||
            hi - lo > (256ULL << 20))
            continue;
        std::string chunk(hi - lo, '\0');
        ssize_t n = pread(mem, &chunk[0], chunk.size(), (off_t)lo);
        found = n > 0 && chunk.find(text) < (size_t)n;
    }
    if (mem >= 0)
        close(mem);
    return found;
}

#endif /* TEST_EXEC_CMD_CLIENT_H */
