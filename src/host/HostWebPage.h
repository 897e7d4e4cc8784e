#pragma once

#include <string>

// The control API's small web page: host, members and grouping members, join
// and leave through /grouping/request, live through /api/v1/events. Built
// into the binary so the host serves it without files.
class HostWebPage
{
public:
    static std::string html();
};
