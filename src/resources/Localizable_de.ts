<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="de">
<context>
    <name>Localizable</name>
    <message>
        <source>OK_BUTTON</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>PUBLISH</source>
        <translation>Veröffentlichen</translation>
    </message>
    <message>
        <source>CANCEL</source>
        <translation>Abbrechen</translation>
    </message>
    <message>
        <source>PUBLISH_VIDEO</source>
        <translation>Video veröffentlichen</translation>
    </message>
    <message>
        <source>TITLE</source>
        <translation>Titel</translation>
    </message>
    <message>
        <source>DESCRIPTION</source>
        <translation>Beschreibung</translation>
    </message>
    <message>
        <source>CATEGORY</source>
        <translation>Kategorie</translation>
    </message>
    <message>
        <source>TAGS</source>
        <translation>Schlagwörter</translation>
    </message>
    <message>
        <source>NEW_TAG</source>
        <translation>Neues Schlagwort</translation>
    </message>
    <message>
        <source>HD</source>
        <translation>HD</translation>
    </message>
    <message>
        <source>STANDARD_DEFINITION</source>
        <translation>Standard</translation>
    </message>
    <message>
        <source>SIZE_FORMAT_PARENS</source>
        <translation>(%1)</translation>
    </message>
    <message>
        <source>SIZE_OR_MORE_FORMAT_PARENS</source>
        <translation>(%1 oder mehr)</translation>
    </message>
    <message>
        <source>ACCOUNT_NAME_FORMAT</source>
        <translation>Angemeldet als %1</translation>
    </message>
    <message>
        <source>ACCOUNT_BLANK</source>
        <translation>Nicht angemeldet</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_TITLE</source>
        <translation>Anmeldung fehlgeschlagen</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_BODY</source>
        <translation>Anmeldung nicht möglich. Bitte prüfen Sie Benutzername, Passwort und Verbindung und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>Nutzungsbedingungen</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN_TITLE</source>
        <translation>Bei %1 anmelden</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_SIGN_IN_MESSAGE</source>
        <translation>Sie melden sich auf der Seite des Dienstes in Ihrem Webbrowser an.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_SIGN_IN_MESSAGE</source>
        <translation>Sie melden sich auf einem anderen Gerät, etwa Ihrem Telefon, mit einem Code an, der gleich angezeigt wird.</translation>
    </message>
    <message>
        <source>OAUTH2_PASSWORD_SIGN_IN_MESSAGE</source>
        <translation>Geben Sie Ihren Benutzernamen und Ihr Passwort ein.</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE_IN_BROWSER</source>
        <translation>Im Browser fortfahren</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE</source>
        <translation>Weiter</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN</source>
        <translation>Anmelden</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_MESSAGE</source>
        <translation>Öffnen Sie auf einem anderen Gerät %1 und geben Sie den Code %2 ein, oder scannen Sie den QR-Code.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_QR_DESCRIPTION</source>
        <translation>QR-Code der Anmeldeadresse</translation>
    </message>
    <message>
        <source>OAUTH2_SECOND_FACTOR_MESSAGE</source>
        <translation>Geben Sie den Code aus Ihrer Authenticator-App ein.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_PASSWORD</source>
        <translation>Der Dienst hat diesen Benutzernamen und dieses Passwort nicht akzeptiert.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_SECOND_FACTOR</source>
        <translation>Der Dienst hat den Code aus Ihrer Authenticator-App nicht akzeptiert.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_NO_SECOND_FACTOR</source>
        <translation>Die Anmeldung wurde beendet, weil kein Code aus Ihrer Authenticator-App eingegeben wurde.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_REFUSED</source>
        <translation>Der Dienst hat die Anmeldung abgelehnt.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_UNREACHABLE</source>
        <translation>Der Dienst war nicht erreichbar oder hat nicht geantwortet. Bitte prüfen Sie die Verbindung.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_TIMED_OUT</source>
        <translation>Die letzte Anmeldung wurde nicht rechtzeitig abgeschlossen.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_CANCELLED</source>
        <translation>Die letzte Anmeldung wurde abgebrochen.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_EXPIRED</source>
        <translation>Der Dienst hat Ihre Anmeldung beendet. Bitte melden Sie sich erneut an.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_OTHER</source>
        <translation>Die letzte Anmeldung ist nicht gelungen.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_DONE</source>
        <translation>Sie können zur Anwendung zurückkehren.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_FAILED</source>
        <translation>Die Anmeldung ist nicht gelungen. Sie können zur Anwendung zurückkehren.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_EXPIRED</source>
        <translation>Diese Anmeldung ist bereits beendet. Sie können zur Anwendung zurückkehren.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SIGN_IN_AGAIN</source>
        <translation>Der Dienst akzeptiert Ihre Anmeldung nicht mehr. Bitte melden Sie sich erneut an und veröffentlichen Sie noch einmal.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_QUOTA_OR_RATE_LIMIT</source>
        <translation>Der Dienst hat eine Grenze für Ihr Konto erreicht. Bitte versuchen Sie es später noch einmal.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_FIELD</source>
        <translation>Der Dienst hat das Feld „%1“ nicht akzeptiert. Bitte korrigieren Sie es und veröffentlichen Sie erneut.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_REQUEST</source>
        <translation>Der Dienst hat die Angaben nicht angenommen. Bitte prüfen Sie Titel, Beschreibung und Schlagwörter und veröffentlichen Sie erneut.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_TOO_LARGE</source>
        <translation>Das Video ist größer, als der Dienst annimmt. Bitte wählen Sie einen kürzeren Clip oder eine niedrigere Qualität.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_CHANGED_OR_UNREADABLE</source>
        <translation>Das Video wurde geändert oder kann nicht mehr gelesen werden und wurde daher nicht veröffentlicht.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_NETWORK</source>
        <translation>Die Verbindung zum Dienst ist abgebrochen. Bitte prüfen Sie Ihr Netzwerk und versuchen Sie es erneut.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SERVICE_FAILURE</source>
        <translation>Der Dienst kann das Video gerade nicht annehmen. Bitte versuchen Sie es später noch einmal.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_CANCELLED</source>
        <translation>Die Veröffentlichung wurde abgebrochen.</translation>
    </message>
    <message>
        <source>USER_NAME</source>
        <translation>Benutzername</translation>
    </message>
    <message>
        <source>PASSWORD</source>
        <translation>Passwort</translation>
    </message>
    <message>
        <source>KEY_SHIFT</source>
        <translation>Umschalt</translation>
    </message>
    <message>
        <source>KEY_DELETE</source>
        <translation>Löschen</translation>
    </message>
    <message>
        <source>KEY_COMMA</source>
        <translation>Komma</translation>
    </message>
    <message>
        <source>KEY_SPACE</source>
        <translation>Leerzeichen</translation>
    </message>
    <message>
        <source>KEY_RETURN</source>
        <translation>Eingabe</translation>
    </message>
    <message>
        <source>KEY_SPLIT</source>
        <translation>Tastatur teilen</translation>
    </message>
    <message>
        <source>REQUIRES_WIFI</source>
        <translation>erfordert WLAN</translation>
    </message>
    <message>
        <source>LIST_POSITION_FORMAT</source>
        <translation>%1 von %2</translation>
    </message>
</context>
</TS>
