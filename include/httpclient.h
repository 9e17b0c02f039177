/*
 * httpclient.h - minimal HTTP/1.0 GET client over IPv4 and the instance
 * metadata lookup (source name "httpclient").
 */
#ifndef HTTPCLIENT_H
#define HTTPCLIENT_H

#include <string>

namespace KVXHttpC {

class HttpC {
public:
    HttpC();
    virtual ~HttpC();
    int HttpOpen(std::string ip, int port);
    int HttpClose();
    int HttpMakeRequest(std::string uri, std::string& outContent);

private:
    int HttpGetConLen();
    int HttpContentIsReady();
    int HttpReadResponse();

    std::string m_ip;
    std::string m_uri;
    int  m_port;
    int  m_socketFd;
    int  m_headLen;
    int  m_conLen;
    int  m_len;
    char m_buf[8192];
};

} /* namespace KVXHttpC */

int http_get(const char* ip, int port, const char* uri, char* out, int* outlen);
int get_meta_value_by_key(const char* key, char* value, int* pvaluelen);

#endif /* HTTPCLIENT_H */
