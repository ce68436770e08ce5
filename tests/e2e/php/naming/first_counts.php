<?php
/* Parts of several frameworks in one request. */
class Wind { static function init() { } }
class CWebApplication {
    function init() { usleep(1500); }
    function runController($route) { $this->init(); }
}
class YiiBase { static function createWebApplication() { return new CWebApplication; } }
class Yii extends YiiBase { static function run() { self::createWebApplication()->runController("a/b"); } }
function drupal_bootstrap() { drupal_get_normal_path("node/1"); }
function drupal_get_normal_path($path) { return $path; }
Wind::init();
Yii::run();
drupal_bootstrap();
Wind::init();
