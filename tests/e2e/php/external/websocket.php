<?php
/* What a WebSocket brings, and what was written for it. */
require '$FIXTURES/websocket.php';
$w = new WebsocketClient;
var_dump($w->connect('127.0.0.1', $PORT, '/chat/42'), $w->written, $w->answer);
var_dump($w->sendData('one'), $w->sendData('two'));
