<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr">
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
        <translation>Publier</translation>
    </message>
    <message>
        <source>CANCEL</source>
        <translation>Annuler</translation>
    </message>
    <message>
        <source>PUBLISH_VIDEO</source>
        <translation>Publier la vidéo</translation>
    </message>
    <message>
        <source>TITLE</source>
        <translation>Titre</translation>
    </message>
    <message>
        <source>DESCRIPTION</source>
        <translation>Description</translation>
    </message>
    <message>
        <source>CATEGORY</source>
        <translation>Catégorie</translation>
    </message>
    <message>
        <source>TAGS</source>
        <translation>Mots-clés</translation>
    </message>
    <message>
        <source>NEW_TAG</source>
        <translation>Nouveau mot-clé</translation>
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
        <translation>(%1 ou plus)</translation>
    </message>
    <message>
        <source>ACCOUNT_NAME_FORMAT</source>
        <translation>Connecté en tant que %1</translation>
    </message>
    <message>
        <source>ACCOUNT_BLANK</source>
        <translation>Non connecté</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_TITLE</source>
        <translation>Échec de la connexion</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_BODY</source>
        <translation>Connexion impossible. Veuillez vérifier le nom d’utilisateur, le mot de passe et la connexion, puis réessayer.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>Conditions d’utilisation</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN_TITLE</source>
        <translation>Se connecter à %1</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_SIGN_IN_MESSAGE</source>
        <translation>Vous vous connectez sur la page du service, dans votre navigateur web.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_SIGN_IN_MESSAGE</source>
        <translation>Vous vous connectez sur un autre appareil, par exemple votre téléphone, avec un code affiché ensuite.</translation>
    </message>
    <message>
        <source>OAUTH2_PASSWORD_SIGN_IN_MESSAGE</source>
        <translation>Saisissez votre nom d’utilisateur et votre mot de passe.</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE_IN_BROWSER</source>
        <translation>Continuer dans le navigateur</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE</source>
        <translation>Continuer</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN</source>
        <translation>Se connecter</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_MESSAGE</source>
        <translation>Sur un autre appareil, ouvrez %1 et saisissez le code %2, ou scannez le code QR.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_QR_DESCRIPTION</source>
        <translation>Code QR de l’adresse de connexion</translation>
    </message>
    <message>
        <source>OAUTH2_SECOND_FACTOR_MESSAGE</source>
        <translation>Saisissez le code de votre application d’authentification.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_PASSWORD</source>
        <translation>Le service n’a pas accepté ce nom d’utilisateur et ce mot de passe.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_SECOND_FACTOR</source>
        <translation>Le service n’a pas accepté le code de votre application d’authentification.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_NO_SECOND_FACTOR</source>
        <translation>La connexion s’est arrêtée, car aucun code de votre application d’authentification n’a été saisi.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_REFUSED</source>
        <translation>Le service a refusé la connexion.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_UNREACHABLE</source>
        <translation>Le service est injoignable ou n’a pas répondu. Veuillez vérifier la connexion.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_TIMED_OUT</source>
        <translation>La dernière connexion n’a pas été terminée à temps.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_CANCELLED</source>
        <translation>La dernière connexion a été annulée.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_EXPIRED</source>
        <translation>Le service a mis fin à votre connexion. Veuillez vous reconnecter.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_OTHER</source>
        <translation>La dernière connexion n’a pas abouti.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_DONE</source>
        <translation>Vous pouvez revenir à l’application.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_FAILED</source>
        <translation>La connexion n’a pas abouti. Vous pouvez revenir à l’application.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_EXPIRED</source>
        <translation>Cette connexion est déjà terminée. Vous pouvez revenir à l’application.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SIGN_IN_AGAIN</source>
        <translation>Le service n’accepte plus votre connexion. Veuillez vous reconnecter et publier à nouveau.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_QUOTA_OR_RATE_LIMIT</source>
        <translation>Le service a atteint une limite pour votre compte. Veuillez réessayer plus tard.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_FIELD</source>
        <translation>Le service n’a pas accepté le champ « %1 ». Veuillez le corriger et publier à nouveau.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_REQUEST</source>
        <translation>Le service n’a pas accepté ce qui a été envoyé. Veuillez vérifier le titre, la description et les mots-clés, puis publier à nouveau.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_TOO_LARGE</source>
        <translation>La vidéo dépasse la taille acceptée par le service. Veuillez choisir un extrait plus court ou une qualité inférieure.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_CHANGED_OR_UNREADABLE</source>
        <translation>La vidéo a changé ou ne peut plus être lue ; elle n’a donc pas été publiée.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_NETWORK</source>
        <translation>La connexion au service a été perdue. Veuillez vérifier votre réseau et réessayer.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SERVICE_FAILURE</source>
        <translation>Le service ne peut pas recevoir la vidéo pour le moment. Veuillez réessayer plus tard.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_CANCELLED</source>
        <translation>La publication a été annulée.</translation>
    </message>
    <message>
        <source>USER_NAME</source>
        <translation>Nom d’utilisateur</translation>
    </message>
    <message>
        <source>PASSWORD</source>
        <translation>Mot de passe</translation>
    </message>
    <message>
        <source>KEY_SHIFT</source>
        <translation>Majuscule</translation>
    </message>
    <message>
        <source>KEY_DELETE</source>
        <translation>Effacer</translation>
    </message>
    <message>
        <source>KEY_COMMA</source>
        <translation>Virgule</translation>
    </message>
    <message>
        <source>KEY_SPACE</source>
        <translation>Espace</translation>
    </message>
    <message>
        <source>KEY_RETURN</source>
        <translation>Retour</translation>
    </message>
    <message>
        <source>KEY_SPLIT</source>
        <translation>Scinder le clavier</translation>
    </message>
    <message>
        <source>REQUIRES_WIFI</source>
        <translation>Wi-Fi requis</translation>
    </message>
    <message>
        <source>LIST_POSITION_FORMAT</source>
        <translation>%1 sur %2</translation>
    </message>
</context>
</TS>
