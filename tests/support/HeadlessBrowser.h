#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/types.h>

namespace mtest
{

// Chromium without a screen, driven through its DevTools protocol over a pair of pipes
// (no network port): open a page, evaluate scripts in it, take screenshots, and collect
// the script errors it raises. WebGL runs on the software renderer.
class HeadlessBrowser
{
public:
    // The browser to run (Debian's chromium), or empty when none is installed.
    static std::string executable();

    // Starts the browser with its own empty profile in `profileDir` and a page of
    // width x height pixels. Check ok() before use.
    HeadlessBrowser(const std::string& profileDir, int width, int height);
    ~HeadlessBrowser();
    HeadlessBrowser(const HeadlessBrowser&) = delete;
    HeadlessBrowser& operator=(const HeadlessBrowser&) = delete;

    bool ok() const { return m_error.empty(); }
    // What went wrong with the browser itself (not the page).
    const std::string& error() const { return m_error; }

    // Loads the URL and waits (at most `seconds`) until the script expression `ready`
    // is true in the page. False when it never is.
    bool open(const std::string& url, const std::string& ready, double seconds);
    // The value of a script expression, as JSON (null when it throws).
    nlohmann::json evaluate(const std::string& expression);
    // Exceptions the page's scripts threw and errors written to its console so far.
    const std::vector<std::string>& problems() const { return m_problems; }

    struct Image
    {
        int width = 0;
        int height = 0;
        std::vector<unsigned char> rgb; // row by row from the top
    };
    // A screenshot of the page; `png` receives the encoded file when given.
    Image screenshot(std::string* png = nullptr);

private:
    nlohmann::json call(const std::string& method, const nlohmann::json& params, double seconds = 60.0);
    bool readMessage(nlohmann::json& message, double seconds);
    void noteEvent(const nlohmann::json& message);

    pid_t m_pid = -1;
    int m_toBrowser = -1;
    int m_fromBrowser = -1;
    int m_nextId = 0;
    std::string m_session;
    std::string m_buffer;
    std::string m_error;
    std::vector<std::string> m_problems;
};

} // namespace mtest
