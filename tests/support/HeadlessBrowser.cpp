#include "support/HeadlessBrowser.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_PNG
#include <stb/stb_image.h>

namespace mtest
{
namespace
{

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::string base64Decode(const std::string& text)
{
    std::string out;
    uint32_t bits = 0;
    int count = 0;
    for (char c : text)
    {
        int v = c >= 'A' && c <= 'Z'   ? c - 'A'
                : c >= 'a' && c <= 'z' ? c - 'a' + 26
                : c >= '0' && c <= '9' ? c - '0' + 52
                : c == '+'             ? 62
                : c == '/'             ? 63
                                       : -1;
        if (v < 0)
            continue;
        bits = bits << 6 | (uint32_t)v;
        count += 6;
        if (count >= 8)
        {
            count -= 8;
            out += (char)(bits >> count & 0xFF);
        }
    }
    return out;
}

} // namespace

std::string HeadlessBrowser::executable()
{
    struct stat st;
    return ::stat("/usr/bin/chromium", &st) == 0 ? "/usr/bin/chromium" : "";
}

HeadlessBrowser::HeadlessBrowser(const std::string& profileDir, int width, int height)
{
    const std::string browser = executable();
    if (browser.empty())
    {
        m_error = "no browser installed";
        return;
    }
    ::mkdir(profileDir.c_str(), 0700);
    int toBrowser[2], fromBrowser[2];
    if (::pipe(toBrowser) != 0 || ::pipe(fromBrowser) != 0)
    {
        m_error = std::string("pipe: ") + std::strerror(errno);
        return;
    }
    const std::string profile = "--user-data-dir=" + profileDir;
    const std::string log = profileDir + "/browser.log";
    m_pid = ::fork();
    if (m_pid == 0)
    {
        // The browser reads commands from descriptor 3 and writes answers to 4.
        int in = ::fcntl(toBrowser[0], F_DUPFD, 10), out = ::fcntl(fromBrowser[1], F_DUPFD, 10);
        ::dup2(in, 3);
        ::dup2(out, 4);
        for (int fd = 5; fd < 1024; ++fd)
            ::close(fd);
        int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (logFd >= 0)
        {
            ::dup2(logFd, 1);
            ::dup2(logFd, 2);
            ::close(logFd);
        }
        // Without the background-networking flags the browser's own connections are
        // refused on machines without a network; WebGL needs the software renderer.
        const char* args[] = {browser.c_str(),
                              "--headless",
                              "--no-sandbox",
                              "--disable-gpu",
                              "--disable-quic",
                              "--no-first-run",
                              "--disable-background-networking",
                              "--disable-component-update",
                              "--disable-sync",
                              "--use-angle=swiftshader",
                              "--enable-unsafe-swiftshader",
                              "--hide-scrollbars",
                              "--mute-audio",
                              "--remote-debugging-pipe",
                              profile.c_str(),
                              "about:blank",
                              nullptr};
        ::execv(args[0], const_cast<char* const*>(args));
        ::_exit(127);
    }
    ::close(toBrowser[0]);
    ::close(fromBrowser[1]);
    m_toBrowser = toBrowser[1];
    m_fromBrowser = fromBrowser[0];
    if (m_pid < 0)
    {
        m_error = std::string("fork: ") + std::strerror(errno);
        return;
    }
    ::signal(SIGPIPE, SIG_IGN);

    nlohmann::json target = call("Target.createTarget", {{"url", "about:blank"}});
    if (!ok())
        return;
    nlohmann::json attached =
        call("Target.attachToTarget", {{"targetId", target["result"]["targetId"]}, {"flatten", true}});
    if (!ok())
        return;
    m_session = attached["result"]["sessionId"].get<std::string>();
    for (const char* domain : {"Runtime.enable", "Page.enable", "Log.enable"})
        call(domain, nlohmann::json::object());
    call("Emulation.setDeviceMetricsOverride",
         {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", false}});
}

HeadlessBrowser::~HeadlessBrowser()
{
    if (m_pid > 0 && m_error.empty())
    {
        m_session.clear();
        call("Browser.close", nlohmann::json::object(), 10.0);
    }
    if (m_toBrowser >= 0)
        ::close(m_toBrowser);
    if (m_fromBrowser >= 0)
        ::close(m_fromBrowser);
    if (m_pid > 0)
    {
        const Clock::time_point start = Clock::now();
        int status;
        while (::waitpid(m_pid, &status, WNOHANG) == 0)
        {
            if (secondsSince(start) > 10.0)
            {
                ::kill(m_pid, SIGKILL);
                ::waitpid(m_pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

bool HeadlessBrowser::readMessage(nlohmann::json& message, double seconds)
{
    const Clock::time_point start = Clock::now();
    for (;;)
    {
        std::string::size_type end = m_buffer.find('\0');
        if (end != std::string::npos)
        {
            message = nlohmann::json::parse(m_buffer.substr(0, end), nullptr, false);
            m_buffer.erase(0, end + 1);
            return true;
        }
        const double left = seconds - secondsSince(start);
        if (left <= 0)
        {
            m_error = "the browser did not answer in time";
            return false;
        }
        pollfd p{m_fromBrowser, POLLIN, 0};
        if (::poll(&p, 1, (int)(left * 1000) + 1) < 0 && errno != EINTR)
        {
            m_error = std::string("poll: ") + std::strerror(errno);
            return false;
        }
        if (!(p.revents & (POLLIN | POLLHUP)))
            continue;
        char chunk[65536];
        ssize_t n = ::read(m_fromBrowser, chunk, sizeof chunk);
        if (n <= 0)
        {
            m_error = "the browser closed its pipe";
            return false;
        }
        m_buffer.append(chunk, (size_t)n);
    }
}

nlohmann::json HeadlessBrowser::call(const std::string& method, const nlohmann::json& params, double seconds)
{
    if (!ok())
        return nullptr;
    nlohmann::json message = {{"id", ++m_nextId}, {"method", method}, {"params", params}};
    if (!m_session.empty())
        message["sessionId"] = m_session;
    const std::string text = message.dump() + '\0';
    for (size_t done = 0; done < text.size();)
    {
        ssize_t n = ::write(m_toBrowser, text.data() + done, text.size() - done);
        if (n <= 0)
        {
            m_error = "the browser closed its pipe";
            return nullptr;
        }
        done += (size_t)n;
    }
    const Clock::time_point start = Clock::now();
    nlohmann::json reply;
    while (readMessage(reply, seconds - secondsSince(start)))
    {
        if (!reply.is_object())
            continue;
        if (reply.value("id", -1) == m_nextId)
        {
            if (reply.contains("error"))
                m_error = method + ": " + reply["error"].dump();
            return reply;
        }
        noteEvent(reply);
    }
    return nullptr;
}

void HeadlessBrowser::noteEvent(const nlohmann::json& message)
{
    const std::string method = message.value("method", "");
    const nlohmann::json& p = message.contains("params") ? message["params"] : nlohmann::json::object();
    if (method == "Runtime.exceptionThrown")
    {
        const nlohmann::json& d = p["exceptionDetails"];
        std::string text = d.value("text", "exception");
        if (d.contains("exception"))
            text += " " + d["exception"].value("description", "");
        m_problems.push_back(text);
    }
    else if (method == "Runtime.consoleAPICalled" &&
             (p.value("type", "") == "error" || p.value("type", "") == "assert"))
        m_problems.push_back("console: " + p["args"].dump());
    else if (method == "Log.entryAdded" && p["entry"].value("level", "") == "error")
        m_problems.push_back("log: " + p["entry"].value("text", ""));
}

bool HeadlessBrowser::open(const std::string& url, const std::string& ready, double seconds)
{
    const Clock::time_point start = Clock::now();
    call("Page.navigate", {{"url", url}});
    while (ok() && secondsSince(start) < seconds)
    {
        if (evaluate("!!(" + ready + ")") == true)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

nlohmann::json HeadlessBrowser::evaluate(const std::string& expression)
{
    nlohmann::json reply = call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}});
    if (reply.is_null() || !reply.contains("result") || reply["result"].contains("exceptionDetails"))
        return nullptr;
    const nlohmann::json& value = reply["result"]["result"];
    return value.contains("value") ? value["value"] : nlohmann::json(nullptr);
}

HeadlessBrowser::Image HeadlessBrowser::screenshot(std::string* png)
{
    Image image;
    nlohmann::json reply = call("Page.captureScreenshot", {{"format", "png"}});
    if (reply.is_null() || !reply.contains("result"))
        return image;
    const std::string bytes = base64Decode(reply["result"].value("data", ""));
    if (png)
        *png = bytes;
    int channels = 0;
    unsigned char* pixels = stbi_load_from_memory(reinterpret_cast<const unsigned char*>(bytes.data()),
                                                  (int)bytes.size(), &image.width, &image.height, &channels, 3);
    if (pixels)
    {
        image.rgb.assign(pixels, pixels + (size_t)image.width * (size_t)image.height * 3);
        stbi_image_free(pixels);
    }
    return image;
}

} // namespace mtest
