<?php
/* Who may name an action; where a rule is to win, there is one. */
function drupal_bootstrap() { }
function drupal_get_normal_path($path) { }
drupal_bootstrap();
# --- the first path counts => drupal/a
drupal_get_normal_path('a');
drupal_get_normal_path('b');
# --- an empty path => URI/index.php
drupal_get_normal_path('');
# --- no texts => URI/index.php
drupal_get_normal_path(12);
drupal_get_normal_path(null);
drupal_get_normal_path(array('a'));
# --- no argument => URI/index.php
@drupal_get_normal_path();
# --- the root => drupal/index
drupal_get_normal_path('/');
# --- a rule => Rule/
drupal_get_normal_path('a');
# --- the engine reports names as they are declared => drupal/a
Drupal_Get_Normal_Path('a');
