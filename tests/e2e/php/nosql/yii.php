<?php
/* The part of Yii 2 through which its Redis calls go: an application, and a connection that speaks the protocol. */
namespace yii\base {
    class Application { public function __construct($config = array()) { } }
}
namespace yii\redis {
    class Connection {
        public $unixSocket;
        private $stream;

        public function __construct($config = array()) { $this->unixSocket = $config['unixSocket']; }

        public function open() { $this->stream = stream_socket_client("unix://$this->unixSocket"); }

        public function __call($name, $params) { return $this->executeCommand(strtoupper($name), $params); }

        public function executeCommand($name, $params = array()) {
            $this->stream || $this->open();
            $parts = array_merge(explode(' ', $name), $params);
            $text = '*' . count($parts) . "\r\n";
            foreach ($parts as $part) $text .= '$' . strlen($part) . "\r\n$part\r\n";
            fwrite($this->stream, $text);
            return $this->answer();
        }

        private function answer() {
            $line = rtrim(fgets($this->stream), "\r\n");
            $rest = substr($line, 1);
            switch ($line[0]) {
                case '+': return $rest === 'OK' ? true : $rest;
                case ':': return (int)$rest;
                case '-': throw new \Exception($rest);
                case '$': return $rest < 0 ? null : substr(stream_get_contents($this->stream, $rest + 2), 0, -2);
                case '*': $all = array(); for (; $rest > 0; $rest--) $all[] = $this->answer(); return $all;
            }
        }
    }
}
