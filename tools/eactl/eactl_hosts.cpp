/*
 * eactl_hosts.cpp - the nodes to run on: host patterns with ranges as pdsh
 * and clush write them, host files (or standard input), and Ansible
 * inventories read through Ansible's own tools.
 */
#include "eactl.h"
#include "eactl_spawn.h"

#include <errno.h>
#include <jansson.h>
#include <set>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

const size_t kMaxHosts = 100000;   /* a pattern that expands to more is a typing error */

/* Splits text at the commas outside brackets. */
std::vector<std::string> split_top(const std::string& text)
{
    std::vector<std::string> parts;
    std::string part;
    int depth = 0;
    for (char c : text) {
        depth += c == '[' ? 1 : c == ']' ? -1 : 0;
        if (c == ',' && depth == 0) {
            parts.push_back(part);
            part.clear();
        } else {
            part += c;
        }
    }
    parts.push_back(part);
    return parts;
}

bool all_digits(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/* Expands one name with bracketed ranges into out; false on a bad range. */
bool expand_one(const std::string& name, std::vector<std::string>* out)
{
    size_t open = name.find('[');
    if (open == std::string::npos) {
        if (name.find(']') != std::string::npos)
            return false;
        out->push_back(name);
        return true;
    }
    size_t close = name.find(']', open);
    if (close == std::string::npos || name.find('[', open + 1) < close)
        return false;
    std::vector<std::string> rest;
    if (!expand_one(name.substr(close + 1), &rest))
        return false;
    std::string head = name.substr(0, open);
    for (const std::string& item : split_top(name.substr(open + 1, close - open - 1))) {
        size_t dash = item.find('-');
        std::string lo = item.substr(0, dash), hi = dash == std::string::npos ? lo : item.substr(dash + 1);
        if (!all_digits(lo) || !all_digits(hi) || lo.size() > 9 || hi.size() > 9)
            return false;
        long a = atol(lo.c_str()), b = atol(hi.c_str());
        /* "01-12" keeps the width of its first bound, as pdsh does */
        int width = lo.size() > 1 && lo[0] == '0' ? (int)lo.size() : 0;
        if (b < a || (size_t)(b - a) >= kMaxHosts)
            return false;
        for (long v = a; v <= b; v++) {
            char num[16];
            snprintf(num, sizeof(num), "%0*ld", width, v);
            for (const std::string& r : rest) {
                if (out->size() >= kMaxHosts)
                    return false;
                out->push_back(head + num + r);
            }
        }
    }
    return true;
}

bool in_path(const char* program)
{
    const char* path = getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    for (size_t at = 0, end; at <= dirs.size(); at = end + 1) {
        end = dirs.find(':', at);
        end = end == std::string::npos ? dirs.size() : end;
        std::string file = dirs.substr(at, end - at) + "/" + program;
        if (access(file.c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

/* The group's hosts and those of its children, in the inventory's order. */
void walk_group(json_t* inv, const char* group, std::set<std::string>* groups_seen,
                std::vector<std::string>* hosts)
{
    if (!groups_seen->insert(group).second)
        return;
    json_t* g = json_object_get(inv, group);
    size_t k;
    json_t* v;
    json_array_foreach(json_object_get(g, "hosts"), k, v)
        if (json_is_string(v))
            hosts->push_back(json_string_value(v));
    json_array_foreach(json_object_get(g, "children"), k, v)
        if (json_is_string(v))
            walk_group(inv, json_string_value(v), groups_seen, hosts);
}

std::string var_text(json_t* vars, const char* name)
{
    json_t* v = json_object_get(vars, name);
    if (json_is_string(v))
        return json_string_value(v);
    if (json_is_integer(v))
        return std::to_string(json_integer_value(v));
    return "";
}

} /* namespace */

int eactl_expand_hosts(const std::string& pattern, std::vector<std::string>* hosts)
{
    for (const std::string& item : split_top(pattern)) {
        if (item.empty())
            continue;
        if (!expand_one(item, hosts)) {
            fprintf(stderr, "kvx-eactl: '%s' is not a host pattern (NAME, NAME[1-3,7], NAME[01-12])\n",
                    item.c_str());
            return -1;
        }
    }
    return 0;
}

int eactl_read_hosts(const char* path, std::vector<std::string>* hosts)
{
    bool std_in = strcmp(path, "-") == 0;
    const char* shown = std_in ? "standard input" : path;
    FILE* f = std_in ? stdin : fopen(path, "r");
    if (!f) {
        fprintf(stderr, "kvx-eactl: cannot read %s: %s\n", path, strerror(errno));
        return -1;
    }
    char line[1024];
    int rc = 0;
    for (int number = 1; rc == 0 && fgets(line, sizeof(line), f); number++) {
        line[strcspn(line, "#\r\n")] = '\0';
        std::vector<std::string> words = eactl_split_command(line);
        /* as for --host; '' is no host (and never this machine) */
        if (words.size() > 1 || (words.size() == 1 && (words[0].empty() || words[0][0] == '-'))) {
            fprintf(stderr, "kvx-eactl: %s:%d: one ssh destination per line\n", shown, number);
            rc = -1;
        } else if (words.size() == 1) {
            rc = eactl_expand_hosts(words[0], hosts);
        }
    }
    if (!std_in)
        fclose(f);
    return rc;
}

int eactl_read_inventory(const std::string& file, const std::string& limit,
                         std::vector<EactlNode>* nodes)
{
    if (!in_path("ansible-inventory") || (!limit.empty() && !in_path("ansible"))) {
        fprintf(stderr, "kvx-eactl: --inventory reads the inventory with ansible-inventory, which is "
                        "missing: install Debian's ansible-core (apt-get install ansible-core)\n");
        return -1;
    }
    std::string text;
    if (!eactl_capture({"ansible-inventory", "-i", file, "--list"}, &text)) {
        fprintf(stderr, "kvx-eactl: ansible-inventory could not read %s\n", file.c_str());
        return -1;
    }
    json_error_t err;
    json_t* inv = json_loads(text.c_str(), 0, &err);
    if (!json_is_object(inv)) {
        fprintf(stderr, "kvx-eactl: ansible-inventory gave no inventory for %s: %s\n", file.c_str(),
                err.text);
        json_decref(inv);
        return -1;
    }
    std::set<std::string> groups_seen, wanted;
    std::vector<std::string> names;
    walk_group(inv, "all", &groups_seen, &names);
    if (!limit.empty()) {
        /* Ansible's own pattern matching ("web:&prod:!web02", "db*", ...) */
        std::string listed;
        if (!eactl_capture({"ansible", "all", "-i", file, "--list-hosts", "--limit", limit}, &listed)) {
            fprintf(stderr, "kvx-eactl: --limit '%s' leaves no host of %s\n", limit.c_str(), file.c_str());
            json_decref(inv);
            return -1;
        }
        for (size_t at = 0, nl; at < listed.size(); at = nl + 1) {
            nl = listed.find('\n', at);
            nl = nl == std::string::npos ? listed.size() : nl;
            std::string line = listed.substr(at, nl - at);
            size_t b = line.find_first_not_of(' ');
            if (b != std::string::npos && line.compare(b, 7, "hosts (") != 0)
                wanted.insert(line.substr(b));
        }
    }
    json_t* hostvars = json_object_get(json_object_get(inv, "_meta"), "hostvars");
    std::set<std::string> seen;
    for (const EactlNode& n : *nodes)
        seen.insert(n.name);
    for (const std::string& name : names) {
        if ((!limit.empty() && !wanted.count(name)) || !seen.insert(name).second)
            continue;
        json_t* vars = json_object_get(hostvars, name.c_str());
        EactlNode n = {name, var_text(vars, "ansible_host"), var_text(vars, "ansible_port"),
                       var_text(vars, "ansible_user")};
        if (n.dest.empty())
            n.dest = name;
        nodes->push_back(n);
    }
    json_decref(inv);
    return 0;
}

void eactl_add_nodes(const std::vector<std::string>& names, std::vector<EactlNode>* nodes)
{
    std::set<std::string> seen;
    for (const EactlNode& n : *nodes)
        seen.insert(n.name);
    for (const std::string& name : names)
        if (seen.insert(name).second)
            nodes->push_back({name, name, "", ""});
}

void eactl_exclude_nodes(const std::vector<std::string>& exclude, std::vector<EactlNode>* nodes)
{
    std::set<std::string> out(exclude.begin(), exclude.end());
    std::vector<EactlNode> kept;
    for (const EactlNode& n : *nodes)
        if (!out.count(n.name) && !out.count(n.dest))
            kept.push_back(n);
    nodes->swap(kept);
}
