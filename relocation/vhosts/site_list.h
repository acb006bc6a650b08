// The list of IIS sites that the product's utility prints: an XML document
// <sites><site name="..." path="..."/>...</sites>. Names and paths in it come from hosted users, so
// it is read as hostile text (security/disk/policy_text.h): no document type declaration, nothing
// looked up elsewhere, everything bounded.
#pragma once

#include <string>
#include <vector>

struct IisSite {
    std::wstring name; // both as they stand in the list; empty where there is none
    std::wstring path;
};

// The sites of a document, in its order. Throws vexception "Unable to read the list of IIS sites
// (line %d, column %d): " with the reason, which for most is the parser's own. The thread uses COM.
std::vector<IisSite> parseSiteList(const std::wstring& document);
