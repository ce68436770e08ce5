<?php
/* HttpRequest as it comes, extended by a class that makes its properties up, and without a URL worth a record. */
class Mine extends HttpRequest { function __get($n) { echo $n; } }
# --- HttpRequest => HttpRequest
$r = new HttpRequest('$URL'); var_dump($r->send('slow:5'));
# --- extended => HttpRequest
$r = new Mine('$URL'); var_dump($r->send('slow:5'));
# --- no scheme => nothing
$r = new HttpRequest('localhost/x'); var_dump($r->send('slow:5'));
# --- no URL => nothing
$r = new HttpRequest; var_dump($r->send('slow:5'));
