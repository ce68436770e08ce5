<?php
file_put_contents("inc.php", "<?php function inc() { return __FILE__ . __LINE__; } return inc();");
echo include "inc.php";
echo include_once "inc.php";
echo @include "missing.php";
eval('function e() { return 8; } echo e();');
echo eval("return 5;");
eval("broken(");
