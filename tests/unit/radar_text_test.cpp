// What the radar finds in the text of a file.
#include "zqp_radar_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// "line:first word of the name" of each, in their order; of code without its tag unless there is one.
std::string found(const std::string& code, zq_radar_tags tags = {}) {
  std::string list;
  zq_radar_read_text(
      code.find('<') == 0 ? code : "<?php " + code, tags,
      [](void* to, std::string_view name, unsigned line) {
        std::string& list = *static_cast<std::string*>(to);
        list += std::to_string(line) + ":" + std::string(name.substr(0, name.find(' '))) + " ";
      },
      &list);
  return list;
}

}  // namespace

TEST(RadarText, FindsWhatCompiledCodeDoesNotShow) {
  const struct {
    const char *code, *list;
  } cases[] = {
      {"$x = (real) $y + ( REAL\t)2;", "1:(real) 1:(real) "},
      {"// (real)\n/* (real)\n*/ # (real)\n$a = '(real)' . \"(real)\" . real($b) . (really);", ""},
      {"echo $a{0}, $o->p{1}, $a[0]{2}, A::$b {3};", "1:offset 1:offset 1:offset 1:offset "},
      {"echo $a{$b{0}}{1};", "1:offset 1:offset 1:offset "},
      {"echo ${'a'}, $o->{'a'}, ${'a'}{0}, $o->{'m'}(), A::{'m'}();", "1:offset "},
      {"class A { function f() { if ($a) { return [1]; } else { } foreach ($a as $b) { } } }", ""},
      {"switch ($a[0]) { case $b: { } } do { } while ($a); try { } catch (E $e) { } finally { }", ""},
      {"$a = $b ? 1 : $c ? 2 : 3;", "1:nested "},
      {"$a = $b ?: $c ? 2 : 3;\n$a = $b ? 1 : $c ?: 3;", "1:nested 2:nested "},
      {"$a = $b ? 1 : 2 == $c ? 2 : $d ? 3 : 4;", "1:nested 1:nested "},
      {"$a = $b ?: $c ?: 3; $a = $b ? $c ? 1 : 2 : 3; $a = $b ? 1 : ($c ? 2 : 3);", ""},
      {"f($b ? 1 : 2, $c ? 1 : 2); $a = $b ? 1 : $d = $c ? 2 : 3; $b ? 1 : 2 and $c ? 1 : 2;", ""},
      {"$a = array('x' => $b ? 1 : 2, 'y' => $c ? 1 : 2); switch ($a) { case 1: $b ? 1 : 2; case $c ? 1 : 2: }", ""},
      {"$a = $b ? function () { return $c ? 1 : 2; } : A::B;", ""},
      {"echo $$a['x'], $o->$a[0], $$a{'x'};", "1:index 1:index 1:offset "},
      {"echo ${$a['x']}, $o->{$a[0]}, $o->$a($b[0]), A::$a[0], $o->a[0], $$a;", ""},
      {"$s = \"$a[0] $a{0} {$a{0}} {$b[\"}\"]} ${c} \\{$d} $$a[0]\" . $a{1};", "1:offset 1:offset "},
      {"$s = <<<EOT\n$a{0} {$a{0}} \"\nEOT too\nEOT;\n$a{0};", "2:offset 5:offset "},
      {"$s = <<<'EOT'\n{$a{0}}\nEOT;\n$s = <<<\"X\"\r\n'\r\nX;\r\n$a{0};", "7:offset "},
      {"#[x]\n# [x]\n//[x]\n", "1:comment "},
      {"#[\\Attribute(1)]\n/** x */\n#[ReturnTypeWillChange] \nfinal class A { #[X]\r\nvar $a; #[Y]\n}", "5:comment "},
      {"function f(\n#[X]\n&$a) { #[x]\n$a = 1; #[x] open\nclass A { } #[1]\nclass B { } }",
       "3:comment 4:comment 5:comment "},
      {"if ($a) { // ?> (real) <?php }\n(real) $b;", "2:(real) "},
      {"<p>$a{0}</p>\n<script language = 'php' >(real) $a;</script>(real) <script>(real)</script>",
       "2:<script 2:(real) "},
      {"<?= $a{0} ?> (real) <? (real) 1 ?> <% (real) 1 %>", "1:offset "},
      {"$a{0}; __halt_compiler(); (real) $a{0}", "1:offset "},
  };
  for (const auto& each : cases) EXPECT_EQ(found(each.code), each.list) << each.code;
  const std::string tags = "<? (real) 1 ?>\n<% (real) 1 # (real) %> (real) <%= 1 ?> (real)";
  EXPECT_EQ(found(tags, {true, true}), "1:(real) 2:<% 2:(real) 2:<% ");
}

TEST(RadarText, EndsWithTheTextHoweverThatEnds) {
  const std::string code = "<?php $a{<<<X\n{$b ? \"${c[(real) '\\\n/* #[ */ <?=";
  for (size_t length = 0; length <= code.size(); length++) found(code.substr(0, length));
  EXPECT_EQ(found("<?php " + std::string(100000, '[') + "(real) 1"), "");
  EXPECT_EQ(found("<?php " + std::string(100000, ')') + "(real) 1"), "1:(real) ");
  std::string ternaries = "<?php ";
  for (int i = 0; i < 1000; i++) ternaries += "$a ? ";
  EXPECT_EQ(found(ternaries), "");
}
