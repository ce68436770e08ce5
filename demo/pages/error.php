<?php
/* The error page: an exception that nobody catches. */
require __DIR__ . '/shop.php';

class PaymentException extends Exception
{
}

function charge($card)
{
    throw new PaymentException("the bank refused card $card");
}

charge('of the demo');
