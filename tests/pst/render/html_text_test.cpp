// The text of HTML bodies: markup removed, references decoded, blocks as line breaks.
#include "pst/render/html_text.h"

#include <gtest/gtest.h>

#include <string>

#include "common/status.h"

namespace tarn {
namespace {

TEST(HtmlToText, Table) {
    struct Case {
        std::string html;
        std::string text;
    } cases[] = {
        {"<p>one</p><p>two</p>", "one\r\n\r\ntwo"},
        {"a<br>b<br/><br>c", "a\r\nb\r\n\r\nc"},
        {"<div>a</div><div>b</div>", "a\r\nb"},
        {"  a \r\n\t b  ", "a b"},
        {"<pre>x  y\r\nz</pre>w", "x  y\r\nz\r\n\r\nw"},
        {"<table><tr><td>1</td><td>2</td></tr><tr><td>3</td></tr></table>", "1 2\r\n3"},
        {"<html><head><title>T</title><style>p{}</style></head><body>b</body></html>", "b"},
        {"<head><meta charset=x><body>left open</body>", "left open"},
        {"<script>if (a < b) x();</script>s<!-- c --><!-- never closed", "s"},
        {"<a href=\"x>y\">link</a>", "link"},
        {"&lt;&amp;&gt;&quot;&apos;&nbsp;&eacute;&Eacute;&euro;",
         "<&>\"'\xC2\xA0\xC3\xA9\xC3\x89\xE2\x82\xAC"},
        {"&#65;&#x42;&#X43;&#0;&#xD800;&#1114112;&#9", "ABC\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\t"},
        {"&unknown; & &amp &#; a < b", "&unknown; & &amp &#; a < b"},
        {"<h1>T</h1><ul><li>a<li>b</ul>end", "T\r\n\r\na\r\nb\r\n\r\nend"},
        {"", ""},
    };
    for (const Case& c : cases) {
        GrowBuffer out;
        ASSERT_EQ(out.Init(0, 16), kStatusOk);
        EXPECT_EQ(HtmlToText(c.html, &out), kStatusOk) << c.html;
        EXPECT_EQ(std::string(out.view()), c.text) << c.html;
    }
    EXPECT_EQ(HtmlToText("x", nullptr), kStatusNullPointer);
}

}  // namespace
}  // namespace tarn
