#pragma once

// The view page's text around its data, assembled at build time from cli/view/ and the
// system's three.js (see cli/view/embed.cmake): pageHead + data (one JSON object) + pageTail
// is the whole page.
class ViewAssets
{
public:
    static const char* const pageHead;
    static const char* const pageTail;
};
