<?php
class F {
    function m() {
        return array_map(function ($f) {
            return isset($f["line"]) ? $f["line"] : "-";
        }, debug_backtrace());
    }
}
function o() {
    $f = new F;
    return $f->m();
}
echo json_encode(o()), json_encode(get_included_files());
