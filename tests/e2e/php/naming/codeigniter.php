<?php
/* Who may name an action; where a rule is to win, there is one. */
class CI_Router {
    function _set_routing() { }
    function set_class($c) { }
    function set_method($m) { }
}
function drupal_get_normal_path($p) { }
$r = new CI_Router;
$r->_set_routing();
# --- a method alone => URI/index.php
$r->set_method('view');
# --- the first class and method => CI/Blog*%2Fview/12
$r->set_class('Blog12');
$r->set_method('view/12');
$r->set_method('other');
$r->set_class('x');
# --- a class alone => CI/Blog
$r->set_class('Blog');
$r->set_class('Other');
$r->set_method('');
$r->set_method(7);
# --- a rule => Rule/
$r->set_class('Blog');
$r->set_method('view');
# --- another framework's function => URI/index.php
drupal_get_normal_path('a');
