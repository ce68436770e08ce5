<?php
/* A framework that names its action runs inside one of the script. */
function drupal_bootstrap() { }
function drupal_get_normal_path($path) { }
vantor_start_webaction('mine');
drupal_bootstrap();
drupal_get_normal_path('node/7');
