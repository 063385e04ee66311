#include "platform/store/webdav/WebDavMultistatus.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "platform/os/UrlCoding.h"

namespace cirrovault {

namespace {

constexpr const char* Dav = "DAV:";

bool is(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && node->ns && node->ns->href &&
           std::strcmp(reinterpret_cast<const char*>(node->ns->href), Dav) == 0 &&
           std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::string textOf(const xmlNode* node) {
    xmlChar* content = xmlNodeGetContent(node);
    std::string text = content ? reinterpret_cast<const char*>(content) : "";
    xmlFree(content);
    auto first = text.find_first_not_of(" \t\r\n");
    auto last = text.find_last_not_of(" \t\r\n");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

std::string keyOf(const xmlNode* node) {
    std::string ns = node->ns && node->ns->href ? reinterpret_cast<const char*>(node->ns->href) : "";
    return ns + " " + reinterpret_cast<const char*>(node->name);
}

void readProp(const xmlNode* prop, DavResource& resource) {
    for (const xmlNode* p = prop->children; p; p = p->next) {
        if (p->type != XML_ELEMENT_NODE)
            continue;
        if (is(p, "resourcetype")) {
            for (const xmlNode* t = p->children; t; t = t->next) {
                if (is(t, "collection"))
                    resource.collection = true;
            }
        } else if (is(p, "getcontentlength")) {
            std::string text = textOf(p);
            char* end = nullptr;
            unsigned long long value = std::strtoull(text.c_str(), &end, 10);
            if (!text.empty() && end && *end == '\0')
                resource.contentLength = value;
        } else if (is(p, "getlastmodified")) {
            resource.lastModified = WebDavMultistatus::parseHttpDate(textOf(p));
        } else if (is(p, "getetag")) {
            resource.etag = textOf(p);
        }
        resource.properties[keyOf(p)] = textOf(p);
    }
}

void readPropstat(const xmlNode* propstat, DavResource& resource) {
    int status = 0;
    const xmlNode* prop = nullptr;
    for (const xmlNode* c = propstat->children; c; c = c->next) {
        if (is(c, "status"))
            status = WebDavMultistatus::parseStatusLine(textOf(c));
        else if (is(c, "prop"))
            prop = c;
    }
    if (!prop)
        return;
    if (status >= 200 && status < 300) {
        readProp(prop, resource);
        return;
    }
    for (const xmlNode* p = prop->children; p; p = p->next) {
        if (p->type == XML_ELEMENT_NODE)
            resource.failed[keyOf(p)] = status;
    }
}

} // namespace

std::optional<std::string> DavResource::property(const std::string& ns,
                                                 const std::string& name) const {
    auto it = properties.find(ns + " " + name);
    if (it == properties.end())
        return std::nullopt;
    return it->second;
}

std::string WebDavMultistatus::hrefPath(const std::string& href) {
    std::string path = href;
    auto scheme = path.find("://");
    if (scheme != std::string::npos) {
        auto slash = path.find('/', scheme + 3);
        path = slash == std::string::npos ? "/" : path.substr(slash);
    }
    path = UrlCoding::decode(path);
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

int WebDavMultistatus::parseStatusLine(const std::string& text) {
    auto space = text.find(' ');
    if (space == std::string::npos)
        return 0;
    return std::atoi(text.c_str() + space + 1);
}

std::optional<Date> WebDavMultistatus::parseHttpDate(const std::string& text) {
    std::tm tm{};
    const char* end = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S", &tm);
    if (!end)
        return std::nullopt;
    return Date(static_cast<double>(timegm(&tm)));
}

bool WebDavMultistatus::parse(const std::string& body, std::vector<DavResource>& resources) {
    resources.clear();
    if (body.empty() || body.size() > INT32_MAX)
        return false;
    // No network, no entity expansion: the reply is data, never instructions.
    xmlDoc* doc = xmlReadMemory(body.data(), static_cast<int>(body.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (!doc)
        return false;
    const xmlNode* root = xmlDocGetRootElement(doc);
    bool ok = root && is(root, "multistatus");
    if (ok) {
        for (const xmlNode* r = root->children; r; r = r->next) {
            if (!is(r, "response"))
                continue;
            DavResource resource;
            for (const xmlNode* c = r->children; c; c = c->next) {
                if (is(c, "href"))
                    resource.path = hrefPath(textOf(c));
                else if (is(c, "status"))
                    resource.status = parseStatusLine(textOf(c));
                else if (is(c, "propstat"))
                    readPropstat(c, resource);
            }
            resources.push_back(std::move(resource));
        }
    }
    xmlFreeDoc(doc);
    return ok;
}

} // namespace cirrovault
