/*
 * Fixture of the codec tests: envelopes that die with the test, the text
 * round trip a message makes between agent and server, and a look into
 * an envelope's arena and "param".
 */
#ifndef TEST_CODECS_H
#define TEST_CODECS_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string>
#include <vector>
#include "ea_proto.h"

class CodecEnv : public ::testing::Test {
protected:
    std::vector<JXDR*> live;

    void TearDown() override
    {
        for (JXDR* x : live)
            jxdr_destroy(x);
    }
    JXDR* keep(JXDR* x)
    {
        live.push_back(x);
        return x;
    }
    JXDR* call_env() { return keep(jxdr_create_call(1)); }
    JXDR* reply_env() { return keep(jxdr_create_reply(call_env())); }

    /* The text of an encoded envelope parsed back, as the peer reads it. */
    JXDR* over_wire(JXDR* enc)
    {
        char* text = jxdr_to_string(enc);
        EXPECT_NE(text, nullptr);
        JXDR* dec = text ? jxdr_create(text) : nullptr;
        free(text);
        EXPECT_NE(dec, nullptr);
        return keep(dec);
    }
    /* An envelope to decode whose "param" is the given JSON text. */
    JXDR* with_param(const std::string& param)
    {
        std::string text = "{\"ver\": 1, \"type\": 2, \"seq\": 1, \"fn\": 1, \"status\": 0, "
                           "\"param\": " + param + "}";
        JXDR* x = jxdr_create((char*)text.c_str());
        EXPECT_NE(x, nullptr) << text;
        return keep(x);
    }
    /* Argument record encoded in a call, sent, and decoded by the agent. */
    template <typename T>
    T* args_round_trip(int (*codec)(JXDR*, T*&), T in, JXDR** decoded = nullptr)
    {
        T* pin = &in;
        JXDR* c = call_env();
        EXPECT_EQ(codec(c, pin), 0);
        JXDR* d = over_wire(c);
        T* out = nullptr;
        EXPECT_EQ(codec(d, out), 0);
        if (decoded)
            *decoded = d;
        return out;
    }
    /* Result record carved by the codec on a reply, filled, encoded, and the
     * reply as the server parses it. */
    template <typename T, typename Fill>
    JXDR* result_over_wire(int (*codec)(JXDR*, T*&), Fill fill)
    {
        JXDR* r = reply_env();
        T* rec = nullptr;
        EXPECT_EQ(codec(r, rec), 0);
        if (!rec)
            return over_wire(r);
        fill(rec);
        EXPECT_EQ(codec(r, rec), 0);
        return over_wire(r);
    }
    static bool in_arena(JXDR* x, const void* p)
    {
        const char* c = (const char*)p;
        return c >= x->x_param.p_org && c < x->x_param.p_org + JXDR_ARENA_SIZE;
    }
    static std::string param_text(JXDR* x)
    {
        json_t* p = json_object_get(x->x_hd, "param");
        char* s = json_dumps(p, JSON_COMPACT | JSON_SORT_KEYS);
        std::string out = s ? s : "";
        free(s);
        return out;
    }
};

#endif /* TEST_CODECS_H */
