<?php
foreach (array("abc", "5", "", "true") as $v) {
    ini_set("zqs.action_tracer.action_threshold", $v);
    ini_set("zqs.app_name", $v);
}
ini_restore("zqs.app_name");
ini_restore("zqs.action_tracer.enabled");
echo "set";
