// The JSON that kzol prints, parsed: one text, or one object a line.
#pragma once

#include <json/json.h>

#include "test_support.h"

namespace kzol_test {

inline Json::Value parseJson(const std::string& text)
{
    Json::Value value;
    std::string errors;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) << errors << "\n" << text;
    return value;
}

// `render` of every line's object but the summary's, sorted: the order of
// files that parallel workers classify is not fixed.
inline Lines jsonLines(const std::string& output, const std::function<std::string(const Json::Value&)>& render)
{
    Lines lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        const Json::Value object = parseJson(line);
        if (!object.isMember("summary")) {
            lines.push_back(render(object));
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

}  // namespace kzol_test
