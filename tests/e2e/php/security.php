<?php
// A request that handles secrets of every kind and ends in an error that nobody catches.
function login($password)
{
    setcookie('token', 'in-cookie');
    $link = new PDO('sqlite::memory:');
    $link->query("SELECT 'in-literal'");
    file_get_contents('http://user:in-url@' . getenv('PEER') . '/?key=in-url-query');
    usleep(2000);
    throw new Exception('in-message');
}

login('in-argument');
