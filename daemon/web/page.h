// The page: files that the build has made of web/ and put into the program.
#pragma once

#include <span>
#include <string_view>

namespace quorbit {

struct PageFile {
	std::string_view path; // "/app.js"
	std::string_view type; // of its content
	std::string_view tag;  // changes with the content
	bool gzipped;
	std::span<const unsigned char> bytes;
};

// Made by web/build; one of them is "/", which stands for every address of a view. Without npm it is a plain page that
// says how to build the other.
std::span<const PageFile> page_files();

} // namespace quorbit
