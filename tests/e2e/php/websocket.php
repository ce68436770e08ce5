<?php
/* A WebSocket client as scripts carry it around; short text messages only. */
class WebsocketClient {
    private $socket;
    public $written, $answer;

    function connect($host, $port, $path) {
        $handshake = "GET $path HTTP/1.1\r\nHost: $host:$port\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   . "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
        $before = $handshake;
        $this->socket = stream_socket_client("tcp://$host:$port");
        $this->written = array(fwrite($this->socket, $handshake, strlen($handshake)), strlen($handshake), $handshake === $before);
        for ($this->answer = ''; strpos($this->answer, "\r\n\r\n") === false; ) $this->answer .= fread($this->socket, 1500);
        return strpos($this->answer, 's3pPLMBiTxaQ9kYGzzhZRbK+xOo=') !== false;
    }

    function sendData($text) {
        $mask = 'abcd';
        $frame = chr(0x81) . chr(0x80 | strlen($text)) . $mask . ($text ^ substr(str_repeat($mask, strlen($text)), 0, strlen($text)));
        fwrite($this->socket, $frame);
        return substr(fread($this->socket, 1500), 2);
    }
}
