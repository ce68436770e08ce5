<?php
/* Functions are known as they are declared. */
# --- a framework in another spelling => URI/index.php
function DRUPAL_bootstrap() { }
function drupal_get_normal_path($path) { }
drupal_bootstrap();
drupal_get_normal_path('a');
