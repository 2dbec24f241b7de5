// The one error type of the node-map layer: every failure of a node map
// (unreadable or malformed description, unknown node, wrong interface, value
// out of range, write to a read-only node, port failure) is thrown as a
// genapi_error. The node-map users turn it into a GenTL code.
#pragma once

#include <stdexcept>
#include <string>

class genapi_error : public std::runtime_error {
public:
    explicit genapi_error(const std::string &message) : std::runtime_error(message) {}
    // "node 'Width': <message>"; node() gives the name back.
    genapi_error(const std::string &message, const std::string &node)
        : std::runtime_error("node '" + node + "': " + message), node_(node) {}

    // The node the failure concerns, "" when it concerns none.
    const std::string &node() const noexcept { return node_; }

private:
    std::string node_;
};
